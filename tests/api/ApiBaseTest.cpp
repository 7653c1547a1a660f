#include <gtest/gtest.h>

#include <string>

#include "api/ApiBase.h"

namespace {

ApiErrorCode code(int value) { return static_cast<ApiErrorCode>(value); }

TEST(ApiBaseTest, ResponseHeadTakesTheMessageOfItsCodeOrNone) {
    struct Case {
        int code;
        const char* text;
    };
    const Case cases[] = {
        {0, "{ \"code\": 0, \"msg\": \"\" }"},
        {-1, "{ \"code\": -1, \"msg\": \"api not exists.\" }"},
        {-2, "{ \"code\": -2, \"msg\": \"\" }"},
        {3, "{ \"code\": 3, \"msg\": \"parameter format error\" }"},
        {1047, "{ \"code\": 1047, \"msg\": \"need oauth zt account first\" }"},
        {1066, "{ \"code\": 1066, \"msg\": \"\" }"},
        {2528, "{ \"code\": 2528, \"msg\": \"This plugin can't be removed\" }"},
        {2147483647, "{ \"code\": 2147483647, \"msg\": \"\" }"},
    };
    for (const Case& c : cases) {
        json_object* object = ApiBase::sCreateJsonObject(code(c.code));
        EXPECT_STREQ(c.text, json_object_to_json_string(object)) << c.code;
        json_object_put(object);
    }
}

// A table out of order would hide codes from the binary search.
TEST(ApiBaseTest, EveryKnownCodeFindsItsMessage) {
    int withMessage = 0;
    for (int value = -1000; value <= 3000; ++value) {
        withMessage += ApiBase::sMessageOf(code(value))[0] != '\0' ? 1 : 0;
    }
    EXPECT_EQ(129, withMessage);
}

}  // namespace
