// The service's processor against the bytes of one frame, as a peer sends
// them, with the daemon's handler behind it: a message is answered, or
// refused with one of Thrift's own exceptions, and nothing else leaves it.
// The handler's store lives in a private device root.
#include <stdint.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <thrift/TConfiguration.h>
#include <thrift/TOutput.h>
#include <thrift/transport/TBufferTransports.h>

#include "FuzzRoot.h"
#include "Talvern.h"
#include "thriftwrapper/QuorviaHandler.h"
#include "thriftwrapper/QuorviaServer.h"

namespace {

using apache::thrift::TException;
using apache::thrift::transport::TMemoryBuffer;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    apache::thrift::GlobalOutput.setOutputFunction([](const char*) {});
    quorvia_fuzz::privateRoot("frame");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static talvern::TalvernProcessor processor(std::make_shared<QuorviaHandler>());
    // No message is larger than the frames the server takes.
    static const std::shared_ptr<apache::thrift::TConfiguration> configuration =
        std::make_shared<apache::thrift::TConfiguration>(
            static_cast<int>(QuorviaServer::MAX_FRAME_SIZE_));
    std::shared_ptr<TMemoryBuffer> in = std::make_shared<TMemoryBuffer>(
        const_cast<uint8_t*>(data), static_cast<uint32_t>(size), TMemoryBuffer::OBSERVE,
        configuration);
    std::shared_ptr<TMemoryBuffer> out = std::make_shared<TMemoryBuffer>();
    static const std::shared_ptr<apache::thrift::protocol::TProtocolFactory> protocols =
        QuorviaServer::sMakeProtocolFactory();
    try {
        processor.process(protocols->getProtocol(in), protocols->getProtocol(out), NULL);
    } catch (const TException&) {
        // A frame that breaks the protocol: the server drops its connection.
    }
    return 0;
}
