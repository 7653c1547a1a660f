#include "thriftwrapper/QuorviaServer.h"

#include <thrift/concurrency/ThreadFactory.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TNonblockingServerSocket.h>

using apache::thrift::TProcessor;
using apache::thrift::concurrency::ThreadFactory;
using apache::thrift::concurrency::ThreadManager;
using apache::thrift::protocol::TBinaryProtocolFactory;
using apache::thrift::protocol::TProtocolFactory;
using apache::thrift::server::TNonblockingServer;
using apache::thrift::transport::TNonblockingServerSocket;

const char* const QuorviaServer::BIND_ADDRESS_ = "127.0.0.1";
const int QuorviaServer::PORT_;
const size_t QuorviaServer::WORKER_COUNT_;
const size_t QuorviaServer::PENDING_TASK_LIMIT_;
const size_t QuorviaServer::MAX_FRAME_SIZE_;
const size_t QuorviaServer::MAX_CONNECTIONS_;
const size_t QuorviaServer::IDLE_READ_BUFFER_LIMIT_;
const size_t QuorviaServer::IDLE_WRITE_BUFFER_LIMIT_;

namespace {

// No size limits at protocol level (the frame limit bounds a message), strict
// read off so that calls without the version word are served, strict write on.
std::shared_ptr<TProtocolFactory> makeProtocolFactory() {
    return std::make_shared<TBinaryProtocolFactory>(0, 0, false, true);
}

// Detached worker threads. The thread factory of this Thrift generation has
// no scheduling policy, priority or stack size to set: the workers run with
// the system's defaults.
std::shared_ptr<ThreadManager> makeStartedThreadManager() {
    std::shared_ptr<ThreadManager> threadManager = ThreadManager::newSimpleThreadManager(
        QuorviaServer::WORKER_COUNT_, QuorviaServer::PENDING_TASK_LIMIT_);
    threadManager->threadFactory(std::make_shared<ThreadFactory>(true));
    threadManager->start();
    return threadManager;
}

}  // namespace

QuorviaServer::QuorviaServer(const std::shared_ptr<talvern::TalvernIf>& handler, int port) {
    std::shared_ptr<TProcessor> processor = std::make_shared<talvern::TalvernProcessor>(handler);
    std::shared_ptr<TProtocolFactory> protocolFactory = makeProtocolFactory();
    threadManager_ = makeStartedThreadManager();
    // The server socket takes the address: that is what binds loopback only.
    server_.reset(new TNonblockingServer(processor, protocolFactory,
                                         std::make_shared<TNonblockingServerSocket>(BIND_ADDRESS_, port),
                                         threadManager_));
    server_->setMaxFrameSize(MAX_FRAME_SIZE_);
    // The library refuses a new connection once more than its limit are open,
    // counting before the new one: one less makes MAX_CONNECTIONS_ the most
    // that are ever served at once.
    server_->setMaxConnections(MAX_CONNECTIONS_ - 1);
    server_->setOverloadAction(apache::thrift::server::T_OVERLOAD_CLOSE_ON_ACCEPT);
    server_->setIdleReadBufferLimit(IDLE_READ_BUFFER_LIMIT_);
    server_->setIdleWriteBufferLimit(IDLE_WRITE_BUFFER_LIMIT_);
}

QuorviaServer::~QuorviaServer() {}

void QuorviaServer::serve() { server_->serve(); }

void QuorviaServer::stop() { server_->stop(); }

int QuorviaServer::listenPort() { return server_->getListenPort(); }
