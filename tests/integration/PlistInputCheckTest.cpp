// What the binary property-list check lets through to libplist, and what it stops: files made
// by hand, object by object, so that each row holds exactly the fault it is about.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "PlistInputChecks.h"

namespace velnor {
namespace {

// Objects of a binary property list, each its marker byte and what follows it; references are
// referenceSize bytes, big-endian.
struct BinaryPlist {
    unsigned referenceSize = 1;
    std::vector<std::string> objects;
    std::uint64_t top = 0;

    std::string reference(std::uint64_t index) const {
        std::string bytes;
        for (unsigned i = referenceSize; i-- > 0;) {
            bytes += static_cast<char>((index >> (8 * i)) & 0xFF);
        }
        return bytes;
    }
    // A marker with a count: in its low four bits, or after it as a one- or two-byte integer.
    static std::string marker(unsigned kind, std::size_t count) {
        if (count < 15) {
            return std::string(1, static_cast<char>(kind << 4 | count));
        }
        std::string bytes(1, static_cast<char>(kind << 4 | 0xF));
        return count < 256 ? bytes + '\x10' + static_cast<char>(count)
                           : bytes + '\x11' + static_cast<char>(count >> 8) +
                                 static_cast<char>(count & 0xFF);
    }
    std::uint64_t add(std::string object) {
        objects.push_back(std::move(object));
        return objects.size() - 1;
    }
    std::uint64_t ascii(const std::string& text) { return add(marker(0x5, text.size()) + text); }
    std::uint64_t utf16(const std::string& units) {
        return add(marker(0x6, units.size() / 2) + units);
    }
    std::uint64_t integer(unsigned char value) { return add(std::string("\x10", 1) + char(value)); }
    std::uint64_t array(const std::vector<std::uint64_t>& items) {
        std::string object = marker(0xA, items.size());
        for (std::uint64_t item : items) {
            object += reference(item);
        }
        return add(object);
    }
    std::uint64_t dictionary(std::uint64_t key, std::uint64_t value) {
        return add(marker(0xD, 1) + reference(key) + reference(value));
    }

    // The file: magic, objects, a table of 8-byte offsets, and the trailer.
    std::string bytes() const {
        std::string file = "bplist00";
        std::vector<std::uint64_t> offsets;
        for (const std::string& object : objects) {
            offsets.push_back(file.size());
            file += object;
        }
        const std::uint64_t table = file.size();
        auto number = [](std::uint64_t value) {
            std::string bytes;
            for (int i = 7; i >= 0; --i) {
                bytes += static_cast<char>((value >> (8 * i)) & 0xFF);
            }
            return bytes;
        };
        for (std::uint64_t offset : offsets) {
            file += number(offset);
        }
        file += std::string(6, '\0') + '\x08' + static_cast<char>(referenceSize);
        return file + number(objects.size()) + number(top) + number(table);
    }
};

// Arrays nested depth deep around one integer.
std::string nestedArrays(std::size_t depth) {
    BinaryPlist plist;
    plist.referenceSize = 2;
    std::uint64_t inner = plist.integer(1);
    for (std::size_t i = 0; i < depth; ++i) {
        inner = plist.array({inner});
    }
    plist.top = inner;
    return plist.bytes();
}

// levels arrays, each holding the next one twice: 2^levels values from a few hundred bytes.
std::string doublingArrays(std::size_t levels) {
    BinaryPlist plist;
    std::uint64_t inner = plist.integer(1);
    for (std::size_t i = 0; i < levels; ++i) {
        inner = plist.array({inner, inner});
    }
    plist.top = inner;
    return plist.bytes();
}

std::string withTopSetTo(BinaryPlist plist, std::uint64_t top) {
    plist.top = top;
    return plist.bytes();
}

TEST(BinaryPlistCheck, PassesWhatLibplistParsesSafelyAndNamesWhatItStops) {
    BinaryPlist small;
    small.top = small.dictionary(small.ascii("Label"), small.array({small.ascii("x")}));

    BinaryPlist zeroKey;  // the UTF-16 key that libplist's key accessor aborts on
    zeroKey.top = zeroKey.dictionary(zeroKey.utf16(std::string("\0a\0\0", 4)), zeroKey.integer(1));
    BinaryPlist zeroText;
    zeroText.top = zeroText.array({zeroText.ascii(std::string("ab\0c", 4))});
    BinaryPlist highZero;  // a UTF-16 unit with one zero byte is no zero unit
    highZero.top = highZero.array({highZero.utf16(std::string("\0a\x01\0", 4))});
    BinaryPlist selfHolding;
    selfHolding.array({0});
    BinaryPlist outside;
    outside.array({7});
    BinaryPlist overlong;  // an array claiming more references than the file holds
    overlong.add(BinaryPlist::marker(0xA, 200) + std::string(3, '\0'));

    const std::string valid = small.bytes();
    std::string zeroReferenceSize = valid;
    zeroReferenceSize[valid.size() - 25] = '\0';

    // The bytes, and the words of the refusal ("" when they pass).
    const std::pair<std::string, std::string> cases[] = {
        {valid, ""},
        {nestedArrays(kMaxPlistNesting), ""},
        {nestedArrays(kMaxPlistNesting + 1), "nests deeper than 256 levels"},
        {doublingArrays(18), ""},  // 2^19 - 1 values
        {doublingArrays(20), "more than 1000000 values"},
        {zeroKey.bytes(), "holds a zero byte"},
        {zeroText.bytes(), "holds a zero byte"},
        {highZero.bytes(), ""},
        {selfHolding.bytes(), "its object 0 contains itself"},
        {outside.bytes(), "refers to an object that it does not hold"},
        {overlong.bytes(), "its object 0 is not valid"},
        {withTopSetTo(small, small.objects.size()), "trailer is not valid"},
        {zeroReferenceSize, "trailer is not valid"},
        {valid.substr(0, valid.size() - 1), "trailer is not valid"},
        {valid.substr(valid.size() - 32), "trailer is not valid"},
        {"", "trailer is not valid"},
    };
    for (std::size_t row = 0; row < std::size(cases); ++row) {
        const auto& [bytes, refusal] = cases[row];
        const support::Status checked = checkBinaryPlistBytes(bytes);
        if (refusal.empty()) {
            EXPECT_TRUE(checked) << "row " << row << ": " << (checked ? "" : checked.message());
        } else {
            EXPECT_FALSE(checked) << "row " << row;
            EXPECT_NE((checked ? "" : checked.message()).find(refusal), std::string::npos)
                << "row " << row << ": " << (checked ? "" : checked.message());
        }
    }
}

}  // namespace
}  // namespace velnor
