#include <gtest/gtest.h>

#include <string>

#include "support/DeviceRootTest.h"
#include "thriftwrapper/QuorviaHandler.h"

namespace {

class QuorviaHandlerTest : public quorvia_test::DeviceRootTest {
protected:
    std::string request(const std::string& parameter) {
        std::string result;
        QuorviaHandler().request(result, parameter);
        return result;
    }
};

TEST_F(QuorviaHandlerTest, AnUnmountWithoutRootIsLoggedAndAnsweredEmpty) {
    EXPECT_EQ("", request("{\"api\":3}"));
    EXPECT_EQ("", request("{\"api\":3,\"root\":null}"));
    EXPECT_EQ(2, log_.count("thrift request fail.basic_string: construction from null is not valid",
                            google::GLOG_ERROR));
    EXPECT_EQ(2, log_.count("output is: ", google::GLOG_INFO));
}

TEST_F(QuorviaHandlerTest, ARoutedRequestLogsItsOutputNotItsInput) {
    EXPECT_EQ("{ \"code\": 0, \"msg\": \"\" }",
              request("{\"api\":3,\"root\":\"/mnt/secret-root\"}"));
    EXPECT_EQ(1, log_.count("output is: { \"code\": 0, \"msg\": \"\" }", google::GLOG_INFO));
    EXPECT_FALSE(log_.contains("{\"api\":3"));
}

}  // namespace
