// The decrypted pieces read ahead must never hand out what the disk held
// before a write or discard, whatever the order of reads and changes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "image/BandStore.h"
#include "image/ReadAhead.h"
#include "support/TempHome.h"

using namespace qv::image;

namespace {

// Three bands and a bit: the last piece read ahead is shorter than the others.
constexpr uint64_t kDisk = (24ull << 20) + 68 * 1024;

// The band store, with a way to have something happen in the middle of one
// read: after the data was read, before the reader has it.
class HookedStore final : public DiskStore {
public:
    explicit HookedStore(BandStore& store) : store_(store) {}
    uint64_t size() const override { return store_.size(); }
    int read(uint64_t offset, size_t length, uint8_t* out) override {
        const int err = store_.read(offset, length, out);
        if (offset == hookAt && hook) std::exchange(hook, nullptr)();
        return err;
    }
    int write(uint64_t offset, size_t length, const uint8_t* in) override { return store_.write(offset, length, in); }
    int discard(uint64_t offset, uint64_t length) override { return store_.discard(offset, length); }

    uint64_t hookAt = 0;
    std::function<void()> hook;

private:
    BandStore& store_;
};

class ReadAheadTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = qv::test::makeTempDir("qv-readahead");
        bandsFd_ = ::open(dir_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_GE(bandsFd_, 0);
        std::vector<uint8_t> key(64);
        for (size_t i = 0; i < key.size(); ++i) key[i] = uint8_t(i * 7 + 1);
        store_ = std::make_unique<BandStore>(bandsFd_, kDisk, Encryption::AES256, key.data());
        hooked_ = std::make_unique<HookedStore>(*store_);
        disk_ = std::make_unique<ReadAhead>(*hooked_);
        model_.assign(kDisk, 0);
    }
    void TearDown() override {
        disk_.reset();
        hooked_.reset();
        store_.reset();
        if (bandsFd_ >= 0) ::close(bandsFd_);
        std::filesystem::remove_all(dir_);
    }
    void fill(uint64_t offset, size_t length, uint8_t seed) {
        for (size_t i = 0; i < length; ++i) model_[offset + i] = uint8_t(seed + i * 31 + (i >> 12));
        ASSERT_EQ(disk_->write(offset, length, model_.data() + offset), 0);
    }
    void discard(uint64_t offset, uint64_t length) {
        std::fill(model_.begin() + long(offset), model_.begin() + long(offset + length), 0);
        ASSERT_EQ(disk_->discard(offset, length), 0);
    }
    // One request the way the device answers it: read, then read ahead.
    void expectRead(uint64_t offset, size_t length) {
        std::vector<uint8_t> got(length);
        ASSERT_EQ(disk_->read(offset, length, got.data()), 0);
        disk_->readAheadOf(offset, length);
        ASSERT_TRUE(std::equal(got.begin(), got.end(), model_.begin() + long(offset)))
            << "stale or wrong data at " << offset << " (+" << length << ")";
    }

    std::string dir_;
    int bandsFd_ = -1;
    std::unique_ptr<BandStore> store_;
    std::unique_ptr<HookedStore> hooked_;
    std::unique_ptr<ReadAhead> disk_;
    std::vector<uint8_t> model_;
};

TEST_F(ReadAheadTest, ASequentialReaderSeesWritesAndDiscardsMadeAheadOfIt) {
    fill(0, kDisk, 3);
    // Requests of 96 KiB straddle the 128 KiB pieces; a band boundary lies at 8 MiB.
    const size_t step = 96 * 1024;
    uint64_t at = 7ull << 20;
    for (int i = 0; i < 6; ++i, at += step) expectRead(at, step);
    // The next MiB is read ahead by now: change parts of it and of what lies beyond.
    fill(at + 4096, 200 * 1024, 99);
    discard(at + 512 * 1024, 256 * 1024);
    fill(at + 900 * 1024, 5, 42);  // not even a whole sector
    for (int i = 0; i < 40; ++i, at += step) expectRead(at, step);
    // A second reader elsewhere, and the first one going on, interleaved.
    uint64_t other = 20ull << 20;
    for (int i = 0; i < 12; ++i, at += step, other += 64 * 1024) {
        expectRead(other, 64 * 1024);
        expectRead(at, step);
        if (i == 5) fill(other + 128 * 1024, 64 * 1024, 7);
    }
    // A write that lands while a piece is being read ahead, after its old
    // content was read: the piece must not be kept.
    at = 16ull << 20;  // where nothing was read ahead yet
    hooked_->hookAt = at + 4 * ReadAhead::kPiece;
    hooked_->hook = [&] { fill(hooked_->hookAt + 4096, 8192, 55); };
    for (int i = 0; i < 16; ++i, at += ReadAhead::kPiece) expectRead(at, ReadAhead::kPiece);
    EXPECT_FALSE(hooked_->hook) << "the piece was never read ahead";
    // Parts of sectors, off any piece read ahead.
    expectRead(3ull << 20 | 4093, 5);
    expectRead((5ull << 20) + 100, 10000);
    // Up to the end of the disk.
    expectRead(kDisk - 3 * step, step);
    expectRead(kDisk - 2 * step, step);
    expectRead(kDisk - step, step);
}

TEST_F(ReadAheadTest, AfterConcurrentReadersAndWritersNothingStaleRemains) {
    fill(0, kDisk, 1);
    std::atomic<bool> stop {false};
    std::vector<std::thread> readers;
    for (int r = 0; r < 3; ++r) {
        readers.emplace_back([&, r] {
            std::vector<uint8_t> buf(128 * 1024);
            uint64_t at = uint64_t(r) * (6ull << 20);
            while (!stop) {
                if (disk_->read(at, buf.size(), buf.data()) != 0) ADD_FAILURE() << "read failed";
                disk_->readAheadOf(at, buf.size());
                at = (at + buf.size()) % (kDisk - buf.size());
            }
        });
    }
    std::mt19937_64 random(7);
    for (int i = 0; i < 400; ++i) {
        const uint64_t offset = random() % (kDisk - 300 * 1024);
        const size_t length = 1 + size_t(random() % (300 * 1024));
        if (i % 5 == 0)
            discard(offset, length);
        else
            fill(offset, length, uint8_t(i));
    }
    stop = true;
    for (auto& t : readers) t.join();
    // Every change is done: whatever was kept must match the disk now.
    for (uint64_t at = 0; at < kDisk; at += 128 * 1024)
        expectRead(at, size_t(std::min<uint64_t>(128 * 1024, kDisk - at)));
    std::vector<uint8_t> past(4096);
    EXPECT_EQ(disk_->read(kDisk - 2048, past.size(), past.data()), EINVAL);
}

} // namespace
