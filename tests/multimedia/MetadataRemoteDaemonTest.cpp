#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TSimpleServer.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>
#include <memory>
#include <string>

#include "Talvern.h"
#include "multimedia/Metadata.h"
#include "support/DeviceRootTest.h"

using talvern::Metadata;
using talvern::metadata_s;

namespace {

// Stands in for the daemon on its port: answers every request with reply_
// and keeps the last request text.
class CannedHandler : public talvern::TalvernNull {
public:
    virtual void request(std::string& result, const std::string& parameter) {
        boost::lock_guard<boost::mutex> lock(mutex_);
        lastRequest_ = parameter;
        result = reply_;
    }
    void setReply(const std::string& reply) {
        boost::lock_guard<boost::mutex> lock(mutex_);
        reply_ = reply;
    }
    std::string lastRequest() {
        boost::lock_guard<boost::mutex> lock(mutex_);
        return lastRequest_;
    }

private:
    boost::mutex mutex_;
    std::string reply_ = "{ \"code\": 0 }";
    std::string lastRequest_;
};

class MetadataRemoteDaemonTest : public quorvia_test::DeviceRootTest {
protected:
    virtual void SetUp() {
        DeviceRootTest::SetUp();
        using namespace apache::thrift;
        handler_.reset(new CannedHandler);
        server_.reset(new server::TSimpleServer(
            std::make_shared<talvern::TalvernProcessor>(handler_),
            std::make_shared<transport::TServerSocket>("127.0.0.1", 9088),
            std::make_shared<transport::TFramedTransportFactory>(),
            std::make_shared<protocol::TBinaryProtocolFactory>()));
        thread_.reset(new boost::thread([this]() { server_->serve(); }));
        // The client resolves "localhost"; wait until the port answers.
        metadata_s probe;
        for (int i = 0; i < 200 && Metadata::getAudioMetadataViaThrift("p", "h", "n", probe) != 0;
             ++i) {
            boost::this_thread::sleep_for(boost::chrono::milliseconds(10));
        }
    }
    virtual void TearDown() {
        server_->stop();
        thread_->join();
        DeviceRootTest::TearDown();
    }

    std::shared_ptr<CannedHandler> handler_;
    std::unique_ptr<apache::thrift::server::TSimpleServer> server_;
    std::unique_ptr<boost::thread> thread_;
};

// Image and video go through the local operations, which hand the work to the
// daemon; audio has only the remote one.
TEST_F(MetadataRemoteDaemonTest, RequestsCarryTheKeysInOrderAndRepliesFillWhatTheOperationTakes) {
    const std::string keys = "\"path\": \"\\/d\\/a.jpg\", \"name\": \"a.jpg\", \"hash\": \"h1\"";
    const std::string requests[] = {
        "{ \"api\": 0, " + keys + ", \"defaultModifyTime\": 123 }",
        "{ \"api\": 1, " + keys + " }",
        "{ \"api\": 2, " + keys + ", \"defaultModifyTime\": 123 }",
    };
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
        handler_->setReply(c.reply);
        metadata_s m;
        m.title = m.mime = m.duration = "old";
        m.date = 5;
        const int result =
            c.api == 0   ? Metadata::getImageMetadata("/d/a.jpg", "a.jpg", 123, m, "h1", true)
            : c.api == 1 ? Metadata::getAudioMetadataViaThrift("/d/a.jpg", "h1", "a.jpg", m)
                         : Metadata::getVideoMetadata("/d/a.jpg", "a.jpg", 123, m, "h1", true);
        EXPECT_EQ(c.result, result);
        EXPECT_EQ(requests[c.api], handler_->lastRequest());
        EXPECT_EQ(c.expected, m.title + "|" + m.mime + "|" + m.album + "|" + m.artist + "|" +
                                  m.duration + "|" + std::to_string(m.date));
    }
}

}  // namespace
