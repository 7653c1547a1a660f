#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TSimpleServer.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "Talvern.h"
#include "multimedia/Metadata.h"
#include "support/DeviceRootTest.h"

using talvern::Metadata;
using talvern::metadata_s;

namespace {

// Stands in for the daemon on its port: answers every request with reply and
// keeps the last request text, both under mutex.
struct CannedHandler : public talvern::TalvernNull {
    virtual void request(std::string& result, const std::string& parameter) {
        std::lock_guard<std::mutex> lock(mutex);
        lastRequest = parameter;
        result = reply;
    }
    std::mutex mutex;
    std::string reply = "{}";
    std::string lastRequest;
};

using MetadataRemoteDaemonTest = quorvia_test::DeviceRootTest;

// Image and video go through the local operations, which hand the work to the
// daemon; audio has only the remote one.
TEST_F(MetadataRemoteDaemonTest, RequestsCarryTheKeysInOrderAndRepliesFillWhatTheOperationTakes) {
    using namespace apache::thrift;
    const auto handler = std::make_shared<CannedHandler>();
    server::TSimpleServer server(std::make_shared<talvern::TalvernProcessor>(handler),
                                 std::make_shared<transport::TServerSocket>("127.0.0.1", 9088),
                                 std::make_shared<transport::TFramedTransportFactory>(),
                                 std::make_shared<protocol::TBinaryProtocolFactory>());
    std::thread serving([&server]() { server.serve(); });
    // The client resolves "localhost"; wait until the port answers.
    metadata_s probe;
    for (int i = 0; i < 200 && Metadata::getAudioMetadataViaThrift("p", "h", "n", probe) != 0;
         ++i) {
        usleep(10 * 1000);
    }
    const std::string keys = "\"path\": \"\\/d\\/a.jpg\", \"name\": \"a.jpg\", \"hash\": \"h1\"";
    const std::string full =
        "{ \"code\": 0, \"msg\": \"\", \"title\": \"T\", \"mime\": \"image/png\", "
        "\"album\": \"Al\", \"artist\": \"Ar\", \"duration\": \"90\", \"date\": 1600000000 }";
    struct Case {
        std::string reply;
        int api;
        int result;
        const char* expected;
    } const cases[] = {
        {"{ \"title\": \"T\" }", 0, 0, "T|old|||old|5"},
        // null counts as missing (regression).
        {"{ \"title\": null, \"mime\": \"image/png\", \"date\": null }", 0, 0,
         "old|image/png|||old|5"},
        {full, 0, 0, "T|image/png|||old|1600000000"},
        {full, 1, 0, "T|image/png|Al|Ar|90|1600000000"},
        {full, 2, 0, "T|old|||90|1600000000"},
        {"{ \"code\": 2, \"msg\": \"parameter empty\", \"title\": \"T\" }", 0, 0,
         "old|old|||old|5"},
        // An empty reply is also what the client gives when no daemon answers.
        {"", 1, -1, "old|old|||old|5"},
        {"<html>", 2, -1, "old|old|||old|5"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.reply);
        {
            std::lock_guard<std::mutex> lock(handler->mutex);
            handler->reply = c.reply;
        }
        metadata_s m;
        m.title = m.mime = m.duration = "old";
        m.date = 5;
        const int result =
            c.api == 0   ? Metadata::getImageMetadata("/d/a.jpg", "a.jpg", 123, m, "h1", true)
            : c.api == 1 ? Metadata::getAudioMetadataViaThrift("/d/a.jpg", "h1", "a.jpg", m)
                         : Metadata::getVideoMetadata("/d/a.jpg", "a.jpg", 123, m, "h1", true);
        EXPECT_EQ(c.result, result);
        std::lock_guard<std::mutex> lock(handler->mutex);
        EXPECT_EQ("{ \"api\": " + std::to_string(c.api) + ", " + keys +
                      (c.api == 1 ? " }" : ", \"defaultModifyTime\": 123 }"),
                  handler->lastRequest);
        EXPECT_EQ(c.expected, m.title + "|" + m.mime + "|" + m.album + "|" + m.artist + "|" +
                                  m.duration + "|" + std::to_string(m.date));
    }
    server.stop();
    serving.join();
}

}  // namespace
