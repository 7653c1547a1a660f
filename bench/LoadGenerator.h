#ifndef QUORVIA_BENCH_LOADGENERATOR_H
#define QUORVIA_BENCH_LOADGENERATOR_H

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Talvern.h"

namespace quorvia_bench {

// What one load run measured.
struct LoadFigures {
    double requestsPerSecond;
    double p50Micros;
    double p99Micros;
    long requests;
    long failures;
};

// Load on the service at 127.0.0.1:port: `connections` threads, each with one
// Thrift connection of its own, send requests back to back for `seconds`.
// requestOf(thread, n) gives the n-th request text of a thread; when a check
// is given, a reply it refuses (check(thread, n, reply) false) counts as a
// failure. Latency is taken per call, from send to reply.
class LoadGenerator {
public:
    typedef std::function<std::string(int, long)> RequestOf;
    typedef std::function<bool(int, long, const std::string&)> Check;

    virtual ~LoadGenerator() {}

    static LoadFigures sRun(int port, int connections, double seconds, const RequestOf& requestOf,
                            const Check& check = Check()) {
        std::vector<std::vector<double>> latencies(connections);
        std::vector<long> failures(connections, 0);
        const auto deadline = std::chrono::steady_clock::now() +
                              std::chrono::microseconds(static_cast<long>(seconds * 1e6));
        std::vector<std::thread> threads;
        for (int t = 0; t < connections; ++t) {
            threads.emplace_back(
                [&, t] { sDrive(port, t, deadline, requestOf, check, latencies[t], failures[t]); });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        std::vector<double> all;
        LoadFigures figures = {0, 0, 0, 0, 0};
        for (int t = 0; t < connections; ++t) {
            all.insert(all.end(), latencies[t].begin(), latencies[t].end());
            figures.failures += failures[t];
        }
        std::sort(all.begin(), all.end());
        figures.requests = static_cast<long>(all.size());
        figures.requestsPerSecond = all.size() / seconds;
        if (!all.empty()) {
            figures.p50Micros = all[all.size() / 2];
            figures.p99Micros = all[std::min(all.size() - 1, all.size() * 99 / 100)];
        }
        return figures;
    }

    // Sends count requests on one connection, as fast as replies come.
    static long sSend(int port, long count, const RequestOf& requestOf,
                      const Check& check = Check()) {
        std::vector<double> latencies;
        long failures = 0;
        sLoop(port, 0, requestOf, check, latencies, failures,
              [count](long n) { return n >= count; });
        return failures;
    }

private:
    struct Connection {
        explicit Connection(int port)
            : socket(new apache::thrift::transport::TSocket("127.0.0.1", port)),
              transport(new apache::thrift::transport::TFramedTransport(socket)),
              client(std::make_shared<apache::thrift::protocol::TBinaryProtocol>(transport)) {
            transport->open();
        }
        std::shared_ptr<apache::thrift::transport::TTransport> socket;
        std::shared_ptr<apache::thrift::transport::TTransport> transport;
        talvern::TalvernClient client;
    };

    template <class Stop>
    static void sLoop(int port, int thread, const RequestOf& requestOf, const Check& check,
                      std::vector<double>& latencies, long& failures, Stop stop) {
        std::unique_ptr<Connection> connection;
        std::string result;
        for (long n = 0; !stop(n); ++n) {
            const std::string request = requestOf(thread, n);
            const auto start = std::chrono::steady_clock::now();
            try {
                if (!connection) {
                    connection.reset(new Connection(port));
                }
                connection->client.request(result, request);
            } catch (const std::exception&) {
                ++failures;
                connection.reset();
                continue;
            }
            latencies.push_back(
                std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
                    .count());
            if (check && !check(thread, n, result)) {
                ++failures;
            }
        }
    }

    static void sDrive(int port, int thread, std::chrono::steady_clock::time_point deadline,
                       const RequestOf& requestOf, const Check& check,
                       std::vector<double>& latencies, long& failures) {
        latencies.reserve(1 << 16);
        sLoop(port, thread, requestOf, check, latencies, failures,
              [deadline](long) { return std::chrono::steady_clock::now() >= deadline; });
    }
};

}  // namespace quorvia_bench

#endif
