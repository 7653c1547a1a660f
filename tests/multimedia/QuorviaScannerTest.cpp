#include "multimedia/QuorviaScanner.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "backup/MonitorTestSupport.h"
#include "support/DeviceRootTest.h"

namespace fs = boost::filesystem;

namespace {

using monitor_test::RecordingObserver;

class QuorviaScannerTest : public quorvia_test::DeviceRootTest {
protected:
    virtual void SetUp() {
        DeviceRootTest::SetUp();
        data_ = path("/userdisk/data");
        fs::create_directories(data_);
        observer_.reset(new RecordingObserver);
        scanner_.registerObserver(observer_);
    }
    void touch(const std::string& below) {
        fs::create_directories(fs::path(data_ + "/" + below).parent_path());
        std::ofstream out((data_ + "/" + below).c_str());
    }
    std::string data_;
    boost::shared_ptr<RecordingObserver> observer_;
    quorvia::QuorviaScanner scanner_;
};

// Visible JPEG files only, in batches of ten and the rest at the end; an
// unreadable root is logged and the next root scanned.
TEST_F(QuorviaScannerTest, ReportsVisibleJpegFilesInBatchesOfTen) {
    for (const char* file : {"Photo.JPG", ".hidden.jpg", "image.PNG", "movie.mp4",
                             ".cache/in-hidden.jpg", "$RECYCLE.BIN/binned.jpg", "sub/deep.jpeg"}) {
        touch(file);
    }
    fs::create_symlink(data_ + "/Photo.JPG", data_ + "/link.jpg");
    fs::create_symlink(data_, data_ + "/sub/loop");
    scanner_.start_scanner({data_ + "/missing", data_});
    EXPECT_TRUE(log_.contains("start_scanner catch exception: ", google::GLOG_ERROR));
    ASSERT_EQ(1u, observer_->batches.size());
    std::vector<std::string> paths;
    for (const FileChangeItem& item : observer_->batches[0]) {
        EXPECT_EQ(TALVERN_MODIFY, item.mask);
        paths.push_back(item.path);
    }
    std::sort(paths.begin(), paths.end());
    EXPECT_EQ(std::vector<std::string>({data_ + "/Photo.JPG", data_ + "/sub/deep.jpeg"}), paths);
    EXPECT_EQ(MONITOR_TYPE_SCANNER, observer_->types[0]);

    // Files in a folder of their own, and the batch sizes they come in.
    const std::vector<std::pair<std::size_t, std::vector<std::size_t>>> cases = {
        {0, {}}, {10, {10}}, {25, {10, 10, 5}}};
    for (const auto& c : cases) {
        const std::string dir = "n" + std::to_string(c.first);
        fs::create_directories(data_ + "/" + dir);
        for (std::size_t i = 0; i < c.first; ++i) {
            touch(dir + "/p" + std::to_string(i) + ".jpeg");
        }
        observer_->batches.clear();
        scanner_.start_scanner(std::vector<std::string>(1, data_ + "/" + dir));
        std::vector<std::size_t> got;
        for (const std::vector<FileChangeItem>& batch : observer_->batches) {
            got.push_back(batch.size());
        }
        EXPECT_EQ(c.second, got) << c.first;
    }
}

}  // namespace
