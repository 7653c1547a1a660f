// Cost of a video miss: libavformat's open alone, against the extraction that
// probes streams only where the header leaves them open (the read itself, and
// the whole of it in its bounded child process), and against always probing.
// Printed, not asserted.
extern "C" {
#include <libavformat/avformat.h>
}
#include <glog/logging.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "multimedia/Metadata.h"
#include "multimedia/MetadataVideoProbe.h"

namespace {

const int kRounds = 200;

typedef std::chrono::steady_clock Clock;

double microsPerRound(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count() / kRounds;
}

double openAlone(const std::string& file) {
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < kRounds; ++i) {
        AVFormatContext* context = NULL;
        if (avformat_open_input(&context, file.c_str(), NULL, NULL) == 0) {
            avformat_close_input(&context);
        }
    }
    return microsPerRound(start);
}

double extract(const std::string& file, talvern::videoprobe::StreamInfoPolicy policy) {
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < kRounds; ++i) {
        talvern::metadata_s metadata;
        talvern::videoprobe::readContainer(file, metadata, policy);
    }
    return microsPerRound(start);
}

// A miss as a peer's requests usually come, with a pause before it: the
// reader process has its next child forked by then.
double extractAfterPause(const std::string& file) {
    const std::chrono::milliseconds pause(20);
    std::chrono::duration<double, std::micro> spent(0);
    for (int i = 0; i < kRounds / 4; ++i) {
        std::this_thread::sleep_for(pause);
        const Clock::time_point start = Clock::now();
        talvern::metadata_s metadata;
        talvern::videoprobe::readContainer(file, metadata,
                                           talvern::videoprobe::kStreamInfoWhenHeaderIsOpen);
        spent += Clock::now() - start;
    }
    return spent.count() / (kRounds / 4);
}

double readHere(const std::string& file) {
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < kRounds; ++i) {
        talvern::videoprobe::readFacts(file, talvern::videoprobe::kStreamInfoWhenHeaderIsOpen,
                                       Clock::now() + std::chrono::seconds(10));
    }
    return microsPerRound(start);
}

double getVideoMetadata(const std::string& file) {
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < kRounds; ++i) {
        talvern::metadata_s metadata;
        talvern::Metadata::getVideoMetadata(file, "clip.mp4", 0, metadata, "", false);
    }
    return microsPerRound(start);
}

}  // namespace

int main() {
    // As the daemon does, before any thread: the extraction's children are
    // forked by the reader process.
    talvern::Metadata::sStartVideoReaders();
    char pattern[] = "/tmp/quorvia-video-bench-XXXXXX";
    const std::string dir = mkdtemp(pattern);
    FLAGS_log_dir = dir;
    google::InitGoogleLogging("video-bench");
    av_log_set_level(AV_LOG_QUIET);
    const std::string file = dir + "/clip.mp4";
    std::system(("ffmpeg -nostdin -loglevel error -f lavfi -i testsrc=size=640x360:rate=30 "
                 "-f lavfi -i sine -t 10 -c:v libx264 -preset veryfast -c:a aac "
                 "-metadata creation_time=2024-01-02T10:20:30Z '" + file + "'").c_str());
    // The extraction's INFO lines go to syslog; where no syslog daemon listens
    // (containers) the C library writes them to the console, which costs more
    // than the open. The store-free figures are taken without them.
    FLAGS_minloglevel = google::GLOG_WARNING;
    const double open = openAlone(file);
    const double here = readHere(file);
    const double lazy = extract(file, talvern::videoprobe::kStreamInfoWhenHeaderIsOpen);
    const double paused = extractAfterPause(file);
    const double always = extract(file, talvern::videoprobe::kStreamInfoAlways);
    FLAGS_minloglevel = google::GLOG_INFO;
    const double whole = getVideoMetadata(file);
    std::printf(
        "10 s MP4 (H.264 + AAC): open alone %.0f us; extraction probing only when "
        "needed %.0f us in this process, %.0f us in its child (%.2fx the open) "
        "back to back, %.0f us after a pause; probing always %.0f us (%.1fx); getVideoMetadata "
        "with its INFO lines on "
        "%.0f us\n",
        open, here, lazy, lazy / open, paused, always, always / open, whole);
    std::system(("rm -rf '" + dir + "'").c_str());
    return 0;
}
