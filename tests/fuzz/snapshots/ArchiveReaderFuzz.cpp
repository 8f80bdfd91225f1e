// SPDX-License-Identifier: Apache-2.0
// Any bytes as an archive: either refused with an ArchiveError, or read without a byte outside of them, every
// entry with a safe name of its own and exactly the size that it claims.
#include <set>

#include "snapshots/ArchiveEntryNames.h"
#include "snapshots/ArchiveReader.h"

namespace {

using namespace dorvane;

constexpr std::uint64_t largestRead = 4 << 20;

class Memory : public ArchiveSource {
  public:
    explicit Memory(ByteView bytes) : bytes_(bytes) {}
    std::uint64_t size() const override { return bytes_.size(); }
    std::size_t readAt(std::uint64_t offset, std::span<std::uint8_t> into) const override {
        if (offset > bytes_.size()) __builtin_trap();
        const auto count =
            std::min<std::size_t>(into.size(), bytes_.size() - static_cast<std::size_t>(offset));
        std::copy_n(bytes_.begin() + static_cast<std::ptrdiff_t>(offset), count, into.begin());
        return count;
    }

  private:
    ByteView bytes_;
};

class Counter : public ArchiveSink {
  public:
    void bytes(ByteView content) override { count += content.size(); }
    void zeros(std::uint64_t size) override { count += size; }
    std::uint64_t count = 0;
};

void readAll(const ArchiveReader& archive) {
    std::set<std::string> names;
    ArchiveControl control;
    for (const auto& entry : archive.entries()) {
        if (!isSafeArchiveName(entry.name) || !names.insert(entry.name).second) __builtin_trap();
        if (entry.size > largestRead) continue;
        Counter counter;
        try {
            archive.read(entry, counter, control);
            if (counter.count != entry.size) __builtin_trap();
        } catch (const ArchiveError&) {
            if (counter.count > entry.size) __builtin_trap();
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        readAll(ArchiveReader(std::make_unique<Memory>(ByteView{data, size})));
    } catch (const ArchiveError&) {
    }
    return 0;
}
