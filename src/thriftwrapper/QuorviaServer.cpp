#include "thriftwrapper/QuorviaServer.h"

#include <pthread.h>
#include <sys/socket.h>
#include <thrift/concurrency/ThreadFactory.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>

#include <chrono>
#include <functional>

#include "thriftwrapper/ConnectionRoom.h"
#include "thriftwrapper/GuardedServerSocket.h"

using apache::thrift::TProcessor;
using apache::thrift::concurrency::ThreadFactory;
using apache::thrift::concurrency::ThreadManager;
using apache::thrift::protocol::TBinaryProtocolFactory;
using apache::thrift::protocol::TProtocol;
using apache::thrift::protocol::TProtocolFactory;
using apache::thrift::server::TNonblockingServer;
using apache::thrift::server::TServerEventHandler;
using apache::thrift::transport::TMemoryBuffer;

const char* const QuorviaServer::BIND_ADDRESS_ = "127.0.0.1";
const int QuorviaServer::PORT_;
const size_t QuorviaServer::WORKER_COUNT_;
const size_t QuorviaServer::PENDING_TASK_LIMIT_;
const size_t QuorviaServer::WORKER_STACK_SIZE_;
const size_t QuorviaServer::MAX_FRAME_SIZE_;
const size_t QuorviaServer::MAX_CONNECTIONS_;
const size_t QuorviaServer::ROOM_FOR_;
const size_t QuorviaServer::IDLE_READ_BUFFER_LIMIT_;
const size_t QuorviaServer::IDLE_WRITE_BUFFER_LIMIT_;
const int QuorviaServer::STOP_RETRY_MS_;

namespace {

typedef ConnectionRoom::Connection Connection;

// Tells the server when serve has made its I/O thread, and gives each
// connection its record in the room. When a connection ends, its reply
// buffer is cut back: the library does so only after a reply was sent whole,
// so a peer that reset before its big reply went out left that buffer with
// the connection object, which the library keeps for the next peer (500
// such peers held some 250 MiB).
class ConnectionTracker : public TServerEventHandler {
public:
    ConnectionTracker(const std::function<void()>& serving,
                      const std::shared_ptr<ConnectionRoom>& room, uint32_t replyBufferSize)
        : serving_(serving), room_(room), replyBufferSize_(replyBufferSize) {}

    virtual void preServe() { serving_(); }
    virtual void* createContext(std::shared_ptr<TProtocol>, std::shared_ptr<TProtocol>) {
        return room_->opened();
    }
    virtual void deleteContext(void* context, std::shared_ptr<TProtocol>,
                               std::shared_ptr<TProtocol> output) {
        room_->closed(static_cast<Connection*>(context));
        std::shared_ptr<TMemoryBuffer> replies =
            std::dynamic_pointer_cast<TMemoryBuffer>(output->getTransport());
        if (replies && replies->getBufferSize() > QuorviaServer::IDLE_WRITE_BUFFER_LIMIT_) {
            replies->resetBuffer(replyBufferSize_);
        }
    }

private:
    const std::function<void()> serving_;
    const std::shared_ptr<ConnectionRoom> room_;
    const uint32_t replyBufferSize_;
};

// Tells the room when each call begins and ends, so that a connection in a
// call is never shut down to make room.
//
// A message that is neither a call nor a one-way call makes the processor
// answer false, which should drop the connection; this server's workers only
// stop reading that frame. A frame that breaks the protocol (a bad version
// word, a length beyond the frame) ends in an exception, after which they
// would go on reading from a peer that has lost step. Both cases drop the
// connection here: shutting the socket down (not closing it: the I/O thread
// still owns the descriptor) ends it for the peer, and the I/O thread closes
// it at its next read. Exceptions of the handler never get here: the
// generated code turns them into exception replies.
class DroppingProcessor : public TProcessor {
public:
    DroppingProcessor(const std::shared_ptr<TProcessor>& processor,
                      const std::shared_ptr<ConnectionRoom>& room)
        : processor_(processor), room_(room) {}

    virtual bool process(std::shared_ptr<TProtocol> in, std::shared_ptr<TProtocol> out,
                         void* context) {
        Connection* connection = static_cast<Connection*>(context);
        room_->callBegins(connection);
        bool served = false;
        try {
            served = processor_->process(in, out, context);
        } catch (...) {
            room_->callEnds(connection);
            shutdown(connection->socket, SHUT_RDWR);
            throw;
        }
        room_->callEnds(connection);
        if (!served) {
            shutdown(connection->socket, SHUT_RDWR);
        }
        return served;
    }

private:
    std::shared_ptr<TProcessor> processor_;
    const std::shared_ptr<ConnectionRoom> room_;
};

// While it stands, threads are made with the workers' stack size; after,
// with what the process had before. Should the default not be readable, the
// workers get the system's.
class WorkerStackSize {
public:
    WorkerStackSize() : saved_(pthread_getattr_default_np(&previous_) == 0) {
        pthread_attr_t workers;
        if (saved_ && pthread_attr_init(&workers) == 0) {
            pthread_attr_setstacksize(&workers, QuorviaServer::WORKER_STACK_SIZE_);
            pthread_setattr_default_np(&workers);
            pthread_attr_destroy(&workers);
        }
    }
    virtual ~WorkerStackSize() {
        if (saved_) {
            pthread_setattr_default_np(&previous_);
            pthread_attr_destroy(&previous_);
        }
    }

private:
    WorkerStackSize(const WorkerStackSize&);
    WorkerStackSize& operator=(const WorkerStackSize&);

    pthread_attr_t previous_;
    const bool saved_;
};

// A thread manager whose start failed: it counts the workers that never
// started, and its destructor would wait for them for ever, so it is never
// destroyed (the process is about to end).
std::shared_ptr<ThreadManager>* gUnstartedManager = NULL;

// Detached worker threads. The thread factory of this Thrift generation has
// no scheduling policy, priority or stack size to set: the workers run with
// the system's default policy and priority, and get their stack size from
// the process's default for new threads, set for the time they are started.
std::shared_ptr<ThreadManager> makeStartedThreadManager() {
    std::shared_ptr<ThreadManager> threadManager = ThreadManager::newSimpleThreadManager(
        QuorviaServer::WORKER_COUNT_, QuorviaServer::PENDING_TASK_LIMIT_);
    threadManager->threadFactory(std::make_shared<ThreadFactory>(true));
    const WorkerStackSize stackSize;
    try {
        threadManager->start();
    } catch (...) {
        gUnstartedManager = new std::shared_ptr<ThreadManager>(threadManager);
        throw;
    }
    return threadManager;
}

}  // namespace

// Strings and containers no longer than a frame: a call without the version
// word starts with its name's length, which the protocol reads without
// looking at the frame, so a 7-byte frame that declared 1.8 GB made a worker
// allocate and clear that much.
std::shared_ptr<TProtocolFactory> QuorviaServer::sMakeProtocolFactory() {
    const int32_t limit = static_cast<int32_t>(MAX_FRAME_SIZE_);
    return std::make_shared<TBinaryProtocolFactory>(limit, limit, false, true);
}

QuorviaServer::QuorviaServer(const std::shared_ptr<talvern::TalvernIf>& handler, int port)
    : stage_(NOT_STARTED), stopAsked_(false) {
    std::shared_ptr<TProtocolFactory> protocolFactory = sMakeProtocolFactory();
    threadManager_ = makeStartedThreadManager();
    const std::weak_ptr<ThreadManager> workers = threadManager_;
    std::shared_ptr<ConnectionRoom> room =
        std::make_shared<ConnectionRoom>(ROOM_FOR_, [workers]() -> size_t {
            const std::shared_ptr<ThreadManager> pool = workers.lock();
            return pool ? pool->totalTaskCount() : 0;
        });
    std::shared_ptr<TProcessor> processor = std::make_shared<DroppingProcessor>(
        std::make_shared<talvern::TalvernProcessor>(handler), room);
    // The server socket takes the address: that is what binds loopback only.
    server_.reset(new TNonblockingServer(
        processor, protocolFactory,
        std::make_shared<GuardedServerSocket>(BIND_ADDRESS_, port, room), threadManager_));
    server_->setServerEventHandler(std::make_shared<ConnectionTracker>(
        [this] { enter(SERVING); }, room,
        static_cast<uint32_t>(server_->getWriteBufferDefaultSize())));
    server_->setMaxFrameSize(MAX_FRAME_SIZE_);
    // The library refuses a new connection once more than its limit are open,
    // counting before the new one: one less makes MAX_CONNECTIONS_ the most
    // that are ever served at once.
    server_->setMaxConnections(MAX_CONNECTIONS_ - 1);
    server_->setOverloadAction(apache::thrift::server::T_OVERLOAD_CLOSE_ON_ACCEPT);
    server_->setIdleReadBufferLimit(IDLE_READ_BUFFER_LIMIT_);
    server_->setIdleWriteBufferLimit(IDLE_WRITE_BUFFER_LIMIT_);
    server_->setResizeBufferEveryN(RESIZE_BUFFER_EVERY_N_);
}

// A worker may still be finishing a call (a dropped connection answers its
// client before the worker is done) and then touches the server's
// connection: the workers end before the server goes.
QuorviaServer::~QuorviaServer() { threadManager_->stop(); }

void QuorviaServer::serve() {
    {
        const std::lock_guard<std::mutex> lock(stageMutex_);
        stage_ = stopAsked_ ? SERVED : STARTING;
        if (stopAsked_) {
            return;
        }
    }
    try {
        server_->serve();
    } catch (...) {
        enter(SERVED);
        throw;
    }
    enter(SERVED);
}

// The library's stop only wakes a loop whose wake-up pipe exists, which it
// makes after the listening socket: a stop soon after the port answers was
// lost, and serve ran on. Its I/O threads are all made once it has told
// preServe (SERVING), so from then on its stop may be called.
void QuorviaServer::stop() {
    std::unique_lock<std::mutex> lock(stageMutex_);
    stopAsked_ = true;
    while (stage_ == STARTING || stage_ == SERVING) {
        if (stage_ == SERVING) {
            server_->stop();
        }
        stageChanged_.wait_for(lock, std::chrono::milliseconds(STOP_RETRY_MS_));
    }
}

void QuorviaServer::enter(Stage stage) {
    const std::lock_guard<std::mutex> lock(stageMutex_);
    stage_ = stage;
    stageChanged_.notify_all();
}

int QuorviaServer::listenPort() { return server_->getListenPort(); }
