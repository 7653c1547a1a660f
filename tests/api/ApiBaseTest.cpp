#include <gtest/gtest.h>

#include <string>

#include "api/ApiBase.h"

namespace {

std::string textOf(ApiErrorCode code) {
    json_object* object = ApiBase::sCreateJsonObject(code);
    const std::string text = json_object_to_json_string(object);
    json_object_put(object);
    return text;
}

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
        {1, "{ \"code\": 1, \"msg\": \"parameter missing\" }"},
        {2, "{ \"code\": 2, \"msg\": \"parameter empty\" }"},
        {4, "{ \"code\": 4, \"msg\": \"unkown error\" }"},
        {7, "{ \"code\": 7, \"msg\": \"\" }"},
        {207,
         "{ \"code\": 207, \"msg\": \"welcome plugin open failed: it relys on getWifi, but "
         "getWifi not yet open!\" }"},
        {1047, "{ \"code\": 1047, \"msg\": \"need oauth zt account first\" }"},
        {1066, "{ \"code\": 1066, \"msg\": \"\" }"},
        {1026, "{ \"code\": 1026, \"msg\": \"device's space not enough for sync\" }"},
        {2009, "{ \"code\": 2009, \"msg\": \"The length of the file is 0.\" }"},
        {2528, "{ \"code\": 2528, \"msg\": \"This plugin can't be removed\" }"},
        {2529, "{ \"code\": 2529, \"msg\": \"\" }"},
        {2147483647, "{ \"code\": 2147483647, \"msg\": \"\" }"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.text, textOf(code(c.code))) << c.code;
    }
}

TEST(ApiBaseTest, TableHoldsExactlyTheKnownCodesAndItsGapsAreEmpty) {
    int withMessage = 0;
    for (int value = -1000; value <= 3000; ++value) {
        if (ApiBase::sMessageOf(code(value))[0] != '\0') {
            ++withMessage;
        }
    }
    EXPECT_EQ(129, withMessage);
    const int gaps[] = {1066, 1079, 2005, 2006, 2007, 2022, 2506, 2511, 2516,
                        2517, 2518, 2520, 2522, 2527, 206, 208, 1000, 1081, 2000, 2032, 2500};
    for (int gap : gaps) {
        EXPECT_STREQ("", ApiBase::sMessageOf(code(gap))) << gap;
    }
    const int ends[] = {-1, 1, 6, 207, 1001, 1080, 2001, 2031, 2501, 2528};
    for (int end : ends) {
        EXPECT_STRNE("", ApiBase::sMessageOf(code(end))) << end;
    }
}

TEST(ApiBaseTest, KeysAddedByTheCallerStandBehindTheHead) {
    json_object* object = ApiBase::sCreateJsonObject(SUCCESS);
    json_object_object_add(object, "title", json_object_new_string("a.jpg"));
    EXPECT_STREQ("{ \"code\": 0, \"msg\": \"\", \"title\": \"a.jpg\" }",
                 json_object_to_json_string(object));
    json_object_put(object);
}

}  // namespace
