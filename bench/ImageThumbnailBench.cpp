// Middle thumbnail of a 12-megapixel JPEG: the reduced decode of resizeJpeg
// against `convert -thumbnail` on the same file. Each run happens in a child
// process, so that its peak resident size is its own. Prints figures only.
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <glog/logging.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "multimedia/ImageUtil.h"

namespace {

const int kRuns = 5;

struct Run {
    double seconds;
    long peakKilobytes;
};

// Runs work in a child; its wall time and peak RSS. A failed child is fatal.
template <typename Work>
Run inChild(Work work) {
    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(work() ? 0 : 1);
    }
    int status = 0;
    struct rusage usage;
    if (pid < 0 || wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0) {
        fprintf(stderr, "benchmark run failed\n");
        exit(1);
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    return Run{elapsed.count(), usage.ru_maxrss};
}

Run best(const std::vector<Run>& runs) {
    Run result = runs.front();
    for (const Run& run : runs) {
        result.seconds = std::min(result.seconds, run.seconds);
        result.peakKilobytes = std::max(result.peakKilobytes, run.peakKilobytes);
    }
    return result;
}

}  // namespace

int main() {
    FLAGS_minloglevel = google::GLOG_FATAL;
    char directory[] = "/tmp/quorvia-bench-thumb-XXXXXX";
    if (mkdtemp(directory) == NULL) {
        return 1;
    }
    // The thumbnail writer reaches the device's settings: the folder is the
    // device root, so nothing is made outside it.
    setenv("QUORVIA_ROOT", directory, 1);
    const std::string source = std::string(directory) + "/photo.jpg";
    const std::string ours = std::string(directory) + "/ours.jpg";
    const std::string theirs = std::string(directory) + "/theirs.jpg";
    const std::string make = "/usr/bin/convert -size 4000x3000 plasma:fractal -seed 7 "
                             "-attenuate 0.5 +noise Gaussian -quality 90 '" +
                             source + "'";
    if (system(make.c_str()) != 0) {
        fprintf(stderr, "could not make the source picture\n");
        return 1;
    }

    std::vector<Run> resizeRuns, convertRuns;
    for (int i = 0; i < kRuns; ++i) {
        resizeRuns.push_back(inChild([&] {
            talvern::ImageUtil util;
            std::string target(ours);
            unsigned char* buffer = NULL;
            unsigned long size = 0;
            int sw, sh, ow, oh;
            const int result = util.resizeJpeg(source, target, &buffer, &size, &sw, &sh, 1280,
                                               720, &ow, &oh, 0);
            free(buffer);
            return result == 0;
        }));
        convertRuns.push_back(inChild([&] {
            execl("/usr/bin/convert", "convert", source.c_str(), "-thumbnail", "1280x720",
                  theirs.c_str(), static_cast<char*>(NULL));
            return false;
        }));
    }
    const Run resize = best(resizeRuns);
    const Run convert = best(convertRuns);
    printf("12-megapixel JPEG (4000x3000) to a middle thumbnail, best of %d runs\n", kRuns);
    printf("  resizeJpeg (reduced decode): %8.3f s  peak RSS %6ld KiB\n", resize.seconds,
           resize.peakKilobytes);
    printf("  convert -thumbnail 1280x720: %8.3f s  peak RSS %6ld KiB\n", convert.seconds,
           convert.peakKilobytes);
    printf("  speed-up: %.1fx (target: at least 3x)\n", convert.seconds / resize.seconds);
    const std::string cleanup = std::string("rm -rf '") + directory + "'";
    return system(cleanup.c_str()) == 0 ? 0 : 1;
}
