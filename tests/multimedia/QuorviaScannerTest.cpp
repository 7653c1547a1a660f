#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <boost/thread/thread.hpp>
#include <set>
#include <string>
#include <vector>

#include "backup/MonitorTestSupport.h"
#include "multimedia/QuorviaScanner.h"
#include "support/DeviceRootTest.h"

namespace {

typedef quorvia_test::DeviceRootTest QuorviaScannerTest;

// Visible JPEG files only, links not followed, in batches of ten and the rest
// at the end; an unreadable root is logged and the next root scanned.
TEST_F(QuorviaScannerTest, ReportsVisibleJpegFilesInBatchesOfTen) {
    const std::string data = path("/userdisk/data");
    for (const std::string file :
         {"Photo.JPG", ".hidden.jpg", "image.PNG", "movie.mp4", ".cache/in-hidden.jpg",
          "$RECYCLE.BIN/binned.jpg", "sub/deep.jpeg"}) {
        writeFile("/userdisk/data/" + file, "");
    }
    boost::filesystem::create_symlink(data + "/Photo.JPG", data + "/link.jpg");
    boost::filesystem::create_symlink(data, data + "/sub/loop");
    boost::shared_ptr<monitor_test::RecordingObserver> observer(
        new monitor_test::RecordingObserver);
    quorvia::QuorviaScanner scanner;
    scanner.registerObserver(observer);
    scanner.start_scanner({data + "/missing", data});
    EXPECT_TRUE(log_.contains("start_scanner catch exception: ", google::GLOG_ERROR));
    ASSERT_EQ(1u, observer->batches.size());
    std::set<std::string> paths;
    for (const FileChangeItem& item : observer->batches[0]) {
        paths.insert(item.path);
    }
    EXPECT_EQ(std::set<std::string>({data + "/Photo.JPG", data + "/sub/deep.jpeg"}), paths);

    // Twenty files make two full batches, and no empty one after them.
    for (int i = 0; i < 20; ++i) {
        writeFile("/userdisk/data/many/p" + std::to_string(i) + ".jpeg", "");
    }
    scanner.start_scanner({data + "/many"});
    EXPECT_EQ(std::vector<std::size_t>({2, 10, 10}), observer->sizes());
}

// The walk went down by recursion: a chain of some hundred folders overflowed
// the 128 KiB stack a router gives a thread. Here the chain is deeper and the
// stack twice that.
TEST_F(QuorviaScannerTest, ADeepChainIsWalkedOnASmallStackRegression) {
    std::string deep = "/userdisk/data";
    for (int level = 0; level < 800; ++level) {
        deep += "/d";
    }
    writeFile(deep + "/bottom.jpg", "");
    boost::shared_ptr<monitor_test::RecordingObserver> observer(
        new monitor_test::RecordingObserver);
    quorvia::QuorviaScanner scanner;
    scanner.registerObserver(observer);
    boost::thread::attributes smallStack;
    smallStack.set_stack_size(256 * 1024);
    boost::thread walker(smallStack, [&] { scanner.start_scanner({path("/userdisk/data")}); });
    walker.join();
    EXPECT_EQ(std::vector<std::size_t>({1}), observer->sizes());
}

}  // namespace
