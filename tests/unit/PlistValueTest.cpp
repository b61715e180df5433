#include <gtest/gtest.h>

#include "PlistValue.h"
#include "PluginRequestHandler.h"
#include "handler/OperationTable.h"

namespace velnor {
namespace {

TEST(PlistValue, IntegersAndBooleansStayApart) {
    EXPECT_NE(PlistValue::integer(0), PlistValue::boolean(false));
    EXPECT_NE(PlistValue::integer(1), PlistValue::boolean(true));
    EXPECT_EQ(PlistValue::integer(0).asBoolean(), std::nullopt);
    EXPECT_EQ(PlistValue::boolean(false).asInteger(), std::nullopt);
    EXPECT_EQ(PlistValue::integer(0).kind(), PlistValue::Kind::Integer);
}

TEST(PlistDictionary, RefusesAnAbsentValueAndKeepsItsEntries) {
    PlistDictionary dictionary;
    dictionary.set("a", PlistValue("1"));
    EXPECT_THROW(dictionary.set("a", PlistValue()), std::invalid_argument);
    EXPECT_EQ(*dictionary.find("a")->asString(), "1");
}

TEST(PluginRequestHandler, ErrorResponseHoldsTheCode) {
    PluginRequestHandler handler;
    const auto response = handler.responseForError("CANNOT_START_SERVICE_ERR");
    EXPECT_EQ(response.size(), 1u);
    EXPECT_EQ(*response.find("error")->asString(), "CANNOT_START_SERVICE_ERR");
}

TEST(OperationTable, OffersTheNineHostCalledOperations) {
    std::vector<std::string> names;
    for (const auto& operation : postgres::hostOperations()) {
        names.push_back(operation.name);
    }
    EXPECT_EQ(names,
              (std::vector<std::string>{
                  "initialSetupWithRequest", "writeSettingsWithRequest", "readSettingsWithRequest",
                  "recycleServiceWithVariant", "stopServiceWithVariant", "startServiceWithVariant",
                  "getLogPathsWithRequest", "getStateWithRequest", "doIdleAtCount"}));
}

}  // namespace
}  // namespace velnor
