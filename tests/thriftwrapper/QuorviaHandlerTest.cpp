#include <gtest/gtest.h>

#include <string>

#include "support/DeviceRootTest.h"
#include "thriftwrapper/QuorviaHandler.h"

namespace {

class QuorviaHandlerTest : public quorvia_test::DeviceRootTest {};

TEST_F(QuorviaHandlerTest, AFailedRequestIsLoggedAndAnsweredEmpty) {
    QuorviaHandler handler;
    std::string result;
    handler.request(result, "{\"api\":3}");
    EXPECT_EQ("", result);
    EXPECT_EQ(1, log_.count("thrift request fail.basic_string: construction from null is not valid",
                            google::GLOG_ERROR));
    EXPECT_EQ(1, log_.count("output is: ", google::GLOG_INFO));
}

TEST_F(QuorviaHandlerTest, ARoutedRequestLogsItsOutputNotItsInput) {
    QuorviaHandler handler;
    std::string result;
    handler.request(result, "{\"api\":3,\"root\":\"/mnt/secret-root\"}");
    EXPECT_EQ("{ \"code\": 0, \"msg\": \"\" }", result);
    EXPECT_EQ(1, log_.count("output is: { \"code\": 0, \"msg\": \"\" }", google::GLOG_INFO));
    EXPECT_FALSE(log_.contains("{\"api\":3"));
}

TEST_F(QuorviaHandlerTest, NotifyAnswersEmpty) {
    QuorviaHandler handler;
    std::string result;
    handler.notify(result, -7, "{\"api\":0}");
    EXPECT_EQ("", result);
}

}  // namespace
