#ifndef QUORVIA_THRIFTWRAPPER_QUORVIASERVER_H
#define QUORVIA_THRIFTWRAPPER_QUORVIASERVER_H

#include <stddef.h>
#include <thrift/concurrency/ThreadManager.h>
#include <thrift/server/TNonblockingServer.h>

#include <condition_variable>
#include <memory>
#include <mutex>

#include "Talvern.h"

// The daemon's Thrift server: framed binary protocol on 127.0.0.1, one I/O
// thread (the one that calls serve) and a pool of workers that run one
// request each. Every setting is a constant: the daemon reads no
// configuration for them.
class QuorviaServer {
public:
    static const char* const BIND_ADDRESS_;
    static const int PORT_ = 9088;
    // Up to this many requests run at once; the others wait in the pool's
    // queue, which has no limit (0), so a request is never refused for load.
    static const size_t WORKER_COUNT_ = 3;
    static const size_t PENDING_TASK_LIMIT_ = 0;
    // Each worker's stack, whatever the system's default for threads (8 MiB
    // with glibc, 128 KiB with some router C libraries).
    static const size_t WORKER_STACK_SIZE_ = 1024 * 1024;

    // Limits that keep one peer from costing the others memory or service.
    // A request holds a path, a name and a hash: a few KiB even with every
    // character escaped, so a frame of 64 KiB is ample and a larger one is
    // refused by closing that connection. 512 connections of at most one
    // frame each bound the read buffers to 32 MiB. Once ROOM_FOR_ are open,
    // each new one shuts down the connection that has waited longest for a
    // call (see ConnectionRoom), so idle or slow peers can't hold every
    // place; past MAX_CONNECTIONS_ (a burst of new ones faster than the shut
    // ones close) new connections are closed at accept, and accepting
    // resumes below 80% of it (the library's hysteresis), which ROOM_FOR_
    // stays under. A connection that carried a big frame or reply gives its
    // buffers back beyond 8 KiB as soon as the reply is sent, or it ends:
    // the library checks every 512 calls by default, so one big request per
    // peer would hold both buffers for as long as the peer stays connected.
    static const size_t MAX_FRAME_SIZE_ = 64 * 1024;
    static const size_t MAX_CONNECTIONS_ = 512;
    static const size_t ROOM_FOR_ = MAX_CONNECTIONS_ * 3 / 4;
    static const size_t IDLE_READ_BUFFER_LIMIT_ = 8 * 1024;
    static const size_t IDLE_WRITE_BUFFER_LIMIT_ = 8 * 1024;
    static const int RESIZE_BUFFER_EVERY_N_ = 1;

    // The protocol of every connection: binary, calls with or without the
    // version word read, replies written with it, and no string or container
    // longer than MAX_FRAME_SIZE_.
    static std::shared_ptr<apache::thrift::protocol::TProtocolFactory> sMakeProtocolFactory();

    // Builds the processor around handler, the protocol factory, and the
    // worker pool, which is started here: the workers exist from the end of
    // construction. Throws (an apache::thrift::TException or std::exception)
    // when a worker can't be started. port 0 takes any free port (tests and
    // benchmarks); the daemon passes PORT_.
    QuorviaServer(const std::shared_ptr<talvern::TalvernIf>& handler, int port);
    // Waits for the calls still running on the workers; call after serve
    // has returned.
    virtual ~QuorviaServer();

    // Binds and runs the I/O loop on the calling thread; returns only after
    // stop, at once when stop came first. Call it once. Throws
    // apache::thrift::TException when the socket can't be bound.
    void serve();
    // Ends serve from any thread, whenever it comes: before serve (which
    // then returns at once), while serve starts, or while it runs. Returns
    // once serve has returned, or at once when serve has not begun.
    void stop();
    // The port that serve binds: the one asked for, or with port 0 the one
    // taken, 0 until then. It says nothing about whether serve listens yet.
    int listenPort();

private:
    enum Stage { NOT_STARTED, STARTING, SERVING, SERVED };
    // The library loses a stop that comes before its loop can be woken: from
    // SERVING on, stop tells the loop again this often until serve returns.
    static const int STOP_RETRY_MS_ = 10;

    QuorviaServer(const QuorviaServer&);
    QuorviaServer& operator=(const QuorviaServer&);

    void enter(Stage stage);

    std::mutex stageMutex_;
    std::condition_variable stageChanged_;
    Stage stage_;
    bool stopAsked_;

    std::shared_ptr<apache::thrift::concurrency::ThreadManager> threadManager_;
    std::unique_ptr<apache::thrift::server::TNonblockingServer> server_;
};

#endif
