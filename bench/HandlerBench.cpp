// The hit path inside the process, without the server: QuorviaHandler::request
// against a store of 100,000 rows, its INFO lines off, back to back and with
// the thread asleep between requests. At one connection a worker meets each
// request after such a sleep, on a processor that was idle meanwhile; the
// later figures are what the handler costs there, and what RpcBench's
// 1-connection ratio against an empty handler comes down to. Printed, not
// asserted.
#include <stdio.h>
#include <unistd.h>

#include <string>

#include "BenchDaemon.h"
#include "Seconds.h"
#include "thriftwrapper/QuorviaHandler.h"

namespace {

const int kStoreRows = 100000;
const int kRequests = 20000;
const int kSleepsMicros[] = {0, 20, 100};

using quorvia_bench::Clock;
using quorvia_bench::secondsSince;

// Microseconds a request takes inside the handler, the sleeps left out.
double microsPerRequest(QuorviaHandler& handler, const std::string& root, int sleepMicros) {
    const quorvia_bench::LoadGenerator::RequestOf requestOf =
        quorvia_bench::hitRequests(root, kStoreRows);
    const quorvia_bench::LoadGenerator::Check check = quorvia_bench::hitAnswers(kStoreRows);
    double inside = 0;
    std::string answer;
    for (int n = 0; n < kRequests; ++n) {
        const std::string request = requestOf(0, n);
        const Clock::time_point start = Clock::now();
        handler.request(answer, request);
        inside += secondsSince(start);
        if (!check(0, n, answer)) {
            printf("a hit was answered wrongly: %s\n", answer.c_str());
            exit(1);
        }
        if (sleepMicros > 0) {
            usleep(sleepMicros);
        }
    }
    return inside * 1e6 / kRequests;
}

}  // namespace

int main() {
    quorvia_bench::quietBenchProcess("handler-bench");
    const std::string root = quorvia_bench::makeRoot(kStoreRows);
    QuorviaHandler handler;
    for (int sleepMicros : kSleepsMicros) {
        printf("hit in the handler, %d rows, %3d us asleep between requests: %6.1f us\n",
               kStoreRows, sleepMicros, microsPerRequest(handler, root, sleepMicros));
    }
    return quorvia_bench::removeRoot(root) ? 0 : 1;
}
