// A library is loaded once it can be, and tried again while it cannot.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "LoadOnce.h"

namespace velnor::support {
namespace {

int attempts = 0;

// A library that is installed only by the third attempt to load it.
Result<int> loadLateLibrary() {
    ++attempts;
    if (attempts < 3) {
        return couldNot("load", "liblate.so.1", ENOENT);
    }
    return attempts * 10;
}

TEST(LoadOnce, TriesAgainAfterAFailureAndKeepsTheFirstSuccess) {
    const struct {
        const char* answer;
        int attempts;
    } rows[] = {
        {"could not load \"liblate.so.1\": No such file or directory", 1},
        {"could not load \"liblate.so.1\": No such file or directory", 2},
        {"30", 3},
        {"30", 3},  // loaded: never loaded again
    };
    attempts = 0;
    LoadOnce<int> library(loadLateLibrary);
    for (const auto& row : rows) {
        Result<const int*> got = library.get();
        EXPECT_EQ(got ? std::to_string(**got) : got.message(), row.answer) << row.attempts;
        EXPECT_EQ(attempts, row.attempts);
    }
}

}  // namespace
}  // namespace velnor::support
