#ifndef QUORVIA_THRIFTWRAPPER_CONNECTIONROOM_H
#define QUORVIA_THRIFTWRAPPER_CONNECTIONROOM_H

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <boost/thread/mutex.hpp>
#include <functional>
#include <list>

#include "system/RateLimitedCount.h"

// The server's open connections, and room for new ones: once a new one
// finds roomFor open, the open connection that has waited longest for a call
// (and is not in one) is shut down. Peers that connect and never send, or
// send a byte now and then, would otherwise hold every place and shut out
// the others for as long as they stay; a peer that calls now and then keeps
// its connection while idler ones are there.
//
// A connection whose request waits for a worker looks idle too: while any
// call is queued, or started and not yet begun here, none is shut down (and
// the server's own limit stands for a while).
//
// accepted, opened and closed are called on the server's I/O thread (closed
// on a worker too, should a call fail to hand its connection back);
// callBegins and callEnds on the worker that runs the call, without a lock
// that the workers would contend for.
class ConnectionRoom {
public:
    // One connection's record, the server's context for it. Owned by the
    // room from opened to closed.
    struct Connection {
        int socket = -1;
        // When the last call began or ended (steady clock ticks).
        std::atomic<int64_t> lastCall{0};
        std::atomic<bool> inCall{false};
        bool shut = false;  // shut down to make room; closing
    };

    // At most one WARNING line about connections shut in this time.
    static constexpr int kLogEverySeconds = 1;

    // callsInFlight: the calls queued for the workers or running on them (a
    // worker between two calls may count as running).
    ConnectionRoom(size_t roomFor, const std::function<size_t()>& callsInFlight);
    virtual ~ConnectionRoom();

    // The listening socket accepted socket; with roomFor connections open,
    // one is shut down to make room for it.
    void accepted(int socket);
    // The record of the connection accepted last.
    Connection* opened();
    // The connection ended; its record goes.
    void closed(Connection* connection);
    void callBegins(Connection* connection);
    void callEnds(Connection* connection);

private:
    ConnectionRoom(const ConnectionRoom&);
    ConnectionRoom& operator=(const ConnectionRoom&);

    // Shuts down the connection idle longest; false when every one is in a
    // call or already shut.
    bool shutIdlest();
    void noteShut();

    const size_t roomFor_;
    const std::function<size_t()> callsInFlight_;
    boost::mutex mutex_;
    std::list<Connection*> open_;
    size_t shutOpen_;  // connections of open_ shut and not yet closed
    // Connections between callBegins and callEnds.
    std::atomic<size_t> inCalls_;
    int lastAccepted_;
    RateLimitedCount shut_;
};

#endif
