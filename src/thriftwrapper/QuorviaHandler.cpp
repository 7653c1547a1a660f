#include "thriftwrapper/QuorviaHandler.h"

#include <exception>

#include "api/QuorviaAPIMapping.h"
#include "system/Log.h"

void QuorviaHandler::request(std::string& result, const std::string& parameter) {
    try {
        QuorviaAPIMapping mapping;
        result = mapping.redirectRequest(parameter);
    } catch (const std::exception& e) {
        QLOG(ERROR) << "thrift request fail." << e.what();
    } catch (...) {
        QLOG(ERROR) << "thrift request fail with unknown exception";
    }
    QLOG(INFO) << "output is: " << result;
}

void QuorviaHandler::notify(std::string& /*result*/, const int32_t /*type*/,
                            const std::string& /*parameter*/) {}
