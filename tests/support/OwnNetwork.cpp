// Linked into every test executable: the process gets a network of its own
// before any test runs, where the machine allows it (root, a kernel with
// network namespaces). Its loopback then carries the daemon's fixed port for
// this process and its children alone, so that the suites of two checkouts
// run side by side and no test can reach another suite's daemon. Elsewhere
// the tests share the machine's network and ctest's lock on the port keeps
// the daemon tests apart within one suite.

#include <errno.h>
#include <net/if.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

bool bringUpLoopback() {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct ifreq request;
    memset(&request, 0, sizeof(request));
    strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    bool up = fd >= 0 && ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags |= IFF_UP;
    up = up && ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    if (fd >= 0) {
        close(fd);
    }
    return up;
}

struct OwnNetwork {
    OwnNetwork() {
        if (unshare(CLONE_NEWNET) != 0 || !bringUpLoopback()) {
            fprintf(stderr, "tests share the machine's network: %s\n", strerror(errno));
        }
    }
} ownNetwork;

}  // namespace
