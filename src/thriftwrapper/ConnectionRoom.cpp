#include "thriftwrapper/ConnectionRoom.h"

#include <sys/socket.h>

#include <boost/thread/lock_guard.hpp>
#include <chrono>

#include "system/Log.h"

namespace {

int64_t ticksNow() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

}  // namespace

ConnectionRoom::ConnectionRoom(size_t roomFor, const std::function<size_t()>& callsInFlight)
    : roomFor_(roomFor),
      callsInFlight_(callsInFlight),
      shutOpen_(0),
      inCalls_(0),
      lastAccepted_(-1),
      shut_(std::chrono::seconds(kLogEverySeconds)) {}

ConnectionRoom::~ConnectionRoom() {
    for (Connection* connection : open_) {
        delete connection;
    }
}

void ConnectionRoom::accepted(int socket) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    lastAccepted_ = socket;
    // Those already shut are on their way out: the room counts the others.
    if (open_.size() - shutOpen_ < roomFor_) {
        return;
    }
    // The calls in flight are counted before those begun here: a call that
    // begins or ends between the two counts leaves them unequal, and no new
    // call is queued meanwhile (this thread queues them).
    const size_t inFlight = callsInFlight_();
    if (inFlight == inCalls_.load() && shutIdlest()) {
        noteShut();
    }
}

ConnectionRoom::Connection* ConnectionRoom::opened() {
    Connection* connection = new Connection;
    boost::lock_guard<boost::mutex> lock(mutex_);
    connection->socket = lastAccepted_;
    connection->lastCall = ticksNow();
    open_.push_back(connection);
    return connection;
}

void ConnectionRoom::closed(Connection* connection) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    open_.remove(connection);
    shutOpen_ -= connection->shut ? 1 : 0;
    inCalls_ -= connection->inCall ? 1 : 0;
    delete connection;
}

void ConnectionRoom::callBegins(Connection* connection) {
    connection->inCall = true;
    ++inCalls_;
    connection->lastCall = ticksNow();
}

void ConnectionRoom::callEnds(Connection* connection) {
    connection->lastCall = ticksNow();
    connection->inCall = false;
    --inCalls_;
}

// Shutting the socket down, not closing it: the I/O thread still owns the
// descriptor, and closes it at its next read.
bool ConnectionRoom::shutIdlest() {
    Connection* idlest = NULL;
    for (Connection* connection : open_) {
        if (!connection->inCall && !connection->shut &&
            (idlest == NULL || connection->lastCall.load() < idlest->lastCall.load())) {
            idlest = connection;
        }
    }
    if (idlest == NULL) {
        return false;
    }
    shutdown(idlest->socket, SHUT_RDWR);
    idlest->shut = true;
    ++shutOpen_;
    return true;
}

void ConnectionRoom::noteShut() {
    const unsigned long shut = shut_.count();
    if (shut > 0) {
        QLOG(WARNING) << roomFor_ << " connections open: " << shut
                      << " idle one(s) shut down to make room since the last line";
    }
}
