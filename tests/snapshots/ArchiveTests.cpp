// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/RandomBytes.h"
#include "base/UUID.h"
#include "snapshots/ArchiveCrafting.h"
#include "snapshots/ArchiveEntryNames.h"
#include "snapshots/ArchiveReaderExtract.h"
#include "snapshots/ArchiveWriter.h"
#include "snapshots/ArchiveWriterFile.h"
#include "snapshots/ArchiveZeros.h"
#include "snapshots/HolePunching.h"
#include "support/TemporaryDirectory.h"

namespace dorvane::test {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using testing::HasSubstr;

constexpr std::uint64_t mebibyte = 1 << 20;

std::uint64_t allocatedBytes(const Path& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) throw FileError("read", path, errno);
    return static_cast<std::uint64_t>(info.st_blocks) * 512;
}

class ArchiveTest : public testing::Test {
  protected:
    /// Sparse, with pieces of text at the places named.
    Path makeFile(const std::string& name, std::uint64_t size, const std::map<std::uint64_t, Bytes>& pieces) {
        const auto path = folder / name;
        const FileDescriptor fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
        if (::ftruncate(fd.get(), static_cast<off_t>(size)) != 0) throw FileError("write", path, errno);
        for (const auto& [offset, bytes] : pieces)
            if (::pwrite(fd.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset)) < 0)
                throw FileError("write", path, errno);
        return path;
    }
    Path write(const std::function<void(ArchiveWriter&)>& fill) {
        const auto path = folder / "archive.zip";
        const FileDescriptor fd(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        ArchiveWriter writer(fd.get(), path, control);
        fill(writer);
        writer.finish();
        return path;
    }
    std::unique_ptr<ArchiveReader> open(const Path& path) {
        return std::make_unique<ArchiveReader>(std::make_unique<ArchiveFileSource>(path));
    }
    static std::unique_ptr<ArchiveReader> open(Bytes bytes) {
        struct Memory : ArchiveSource {
            explicit Memory(Bytes content) : bytes(std::move(content)) {}
            std::uint64_t size() const override { return bytes.size(); }
            std::size_t readAt(std::uint64_t offset, std::span<std::uint8_t> into) const override {
                const auto count = std::min<std::size_t>(into.size(), bytes.size() - offset);
                std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), count, into.begin());
                return count;
            }
            Bytes bytes;
        };
        return std::make_unique<ArchiveReader>(std::make_unique<Memory>(std::move(bytes)));
    }
    Path extract(const ArchiveReader& archive) {
        const auto into = folder / "out";
        fs::remove_all(into);
        fs::create_directory(into);
        extractArchive(archive, into, {}, control);
        return into;
    }
    /// Why an archive isn't unpacked; empty when it is.
    std::string refusal(Bytes bytes) {
        try {
            extract(*open(std::move(bytes)));
            return {};
        } catch (const ArchiveError& error) {
            return error.what();
        }
    }

    TemporaryDirectory folder;
    ArchiveControl control;
};

TEST_F(ArchiveTest, ReadyMadeZerosAreWhatTheyClaimToAnyInflater) {
    EXPECT_LT(deflatedZeros().size(), 1100u);
    const Bytes zeros(mebibyte);
    // In zlib's frame, which ends with a checksum.
    Bytes stream{0x78, 0x01}, content(mebibyte + 1, 0xFF);
    stream.insert(stream.end(), deflatedZeros().begin(), deflatedZeros().end());
    stream.insert(stream.end(), {0x03, 0x00});
    appendBE32(stream, static_cast<std::uint32_t>(::adler32_z(1, zeros.data(), zeros.size())));
    uLongf size = content.size();
    EXPECT_EQ(::uncompress(content.data(), &size, stream.data(), stream.size()), Z_OK);
    EXPECT_EQ(size, mebibyte);
    content.pop_back();
    EXPECT_EQ(content, zeros);
    const auto whole = toBytes("before" + std::string(mebibyte, '\0'));
    EXPECT_EQ(crcWithZeros(static_cast<std::uint32_t>(::crc32_z(0, whole.data(), 6))),
              ::crc32_z(0, whole.data(), whole.size()));
}

TEST_F(ArchiveTest, FilesComeBackWithTheirBytesAndTheirHoles) {
    const auto random = randomBytes(3 * mebibyte + 17);
    const struct {
        std::string name;
        std::uint64_t size;
        std::map<std::uint64_t, Bytes> pieces;
    } shapes[]{
        {"empty", 0, {}},
        {"one byte", 1, {{0, toBytes("x")}}},
        {"dense", random.size(), {{0, random}}},
        {"hole only", 64 * mebibyte, {}},
        {"hole first", 9 * mebibyte, {{8 * mebibyte, random}}},
        {"hole last", 40 * mebibyte + 1, {{0, toBytes("begin")}}},
        {"across segments",
         20 * mebibyte,
         {{mebibyte - 3, toBytes("across")}, {7 * mebibyte, Bytes(mebibyte)}}},
        {"scattered", 300 * mebibyte, {{5 * mebibyte + 4096, random}, {200 * mebibyte, toBytes("late")}}},
    };
    const auto path = write([&](ArchiveWriter& writer) {
        for (const auto& shape : shapes)
            writer.addFile("vm/" + shape.name, makeFile(shape.name, shape.size, shape.pieces));
    });
    EXPECT_LT(fs::file_size(path), 12 * mebibyte);
    const auto out = extract(*open(path));
    for (const auto& shape : shapes) {
        const auto source = folder / shape.name, copy = out / "vm" / shape.name;
        EXPECT_EQ(readFile(copy, 400 * mebibyte), readFile(source, 400 * mebibyte)) << shape.name;
        EXPECT_LE(allocatedBytes(copy), allocatedBytes(source) + 4096) << shape.name;
    }
}

TEST_F(ArchiveTest, DataBehindReadyMadeZerosMayReferBackToThem) {
    // No segment of this program's does; another's stream that happens to hold those bytes may.
    const std::string tail = std::string(20000, '\0') + "tail";
    const auto behind = rawDeflated(tail, Bytes(32768));
    Bytes data(deflatedZeros().begin(), deflatedZeros().end());
    data.insert(data.end(), behind.begin(), behind.end());
    const CraftedEntry entry{
        .name = "file", .content = std::string(mebibyte, '\0') + tail, .isDeflated = true, .data = data};
    EXPECT_EQ(readTextFile(extract(*open(craftedArchive({entry}))) / "file"), entry.content);
}

TEST_F(ArchiveTest, FoldersLinksAndPermissionsComeBack) {
    struct stat info {};
    info.st_mode = S_IFDIR | 0750;
    const auto script = makeFile("script", 4, {{0, toBytes("true")}});
    fs::permissions(script, fs::perms(0755));
    const auto archive = open(write([&](ArchiveWriter& writer) {
        writer.addDirectory("vm", info);
        writer.addDirectory("vm/empty", info);
        writer.addFile("vm/deep/script", script);
        writer.addLink("vm/deep/up", "../config", info);
        writer.addText("vm/config", "{}", 0);
    }));
    const auto out = extract(*archive);
    EXPECT_TRUE(fs::is_empty(out / "vm" / "empty"));
    EXPECT_EQ(fs::status(out / "vm" / "deep" / "script").permissions(), fs::perms(0755));
    EXPECT_EQ(fs::read_symlink(out / "vm" / "deep" / "up"), "../config");
    EXPECT_EQ(readTextFile(out / "vm" / "deep" / "up"), "{}");
    EXPECT_EQ(archive->uncompressedBytes(), 4u + 2u + 9u);
}

TEST_F(ArchiveTest, NamesThatLeadElsewhereAreRefusedInBothDirections) {
    const std::string longest(300, 'x'), deepest(1100, '/');
    for (const auto& name : {""s, "/"s, "/etc/passwd"s, ".."s, "../a"s, "a/../b"s, "a/.."s, "a//b"s, "a/./b"s,
                             "."s, "a\\b"s, "C:"s, "c:/a"s, "a/"s, "\xFF.a"s, "a\0b"s, longest, deepest})
        EXPECT_FALSE(isSafeArchiveName(name)) << name;
    for (const auto* name : {"a", "a/b", "..a", "a..", "ab:c", "ä/ö", " ", "a b/.hidden"})
        EXPECT_TRUE(isSafeArchiveName(name)) << name;

    const struct {
        const char *name, *target;
        bool isSafe;
    } links[]{{"vm/a", "b", true},
              {"vm/a", "b/c", true},
              {"vm/d/a", "../b", true},
              {"vm/a", "..", false},
              {"vm/a", "../vm/b", false},
              {"vm/d/a", "../../b", false},
              {"vm/d/e/a", "b/../../c", false},
              {"vm/a", "/etc/passwd", false},
              {"vm/a", "", false},
              {"a", "b", false}};
    for (const auto& [name, target, isSafe] : links)
        EXPECT_EQ(isSafeArchiveLink(name, target), isSafe) << name << " -> " << target;
    EXPECT_THROW(write([](ArchiveWriter& writer) { writer.addText("a\\b", "", 0); }), ArchiveError);
    EXPECT_THROW(write([](ArchiveWriter& writer) {
                     writer.addText("Disk", "", 0);
                     writer.addText("disk", "", 0);
                 }),
                 ArchiveError);
}

TEST_F(ArchiveTest, DishonestArchivesAreRefusedAndNothingLeavesTheFolder) {
    const auto file = [](std::string name, void (*change)(CraftedEntry&) = nullptr) {
        CraftedEntry entry{.name = std::move(name), .content = "some content", .isDeflated = true};
        if (change) change(entry);
        return craftedArchive({entry});
    };
    auto cut = file("a");
    cut.resize(cut.size() - 30);
    auto blown = craftedArchive({{"a", "12345"}, {"b", "67890"}});
    blown.erase(blown.begin(), blown.begin() + 10);
    const auto large = std::string(3 * mebibyte, 'x');
    auto garbled = rawDeflated(large);
    for (std::size_t i = garbled.size() / 3; i < garbled.size() / 3 + 20; ++i) garbled[i] ^= 0x5A;
    const struct {
        std::string what;
        Bytes archive;
        std::string words;
    } cases[]{
        {"nothing", {}, "not a ZIP archive"},
        {"text", toBytes("This is no archive, whatever its name says."), "not a ZIP archive"},
        {"cut off", cut, "not a ZIP archive"},
        {"beginning lost", blown, "damaged"},
        {"climbs", file("../evil"), "can't be used"},
        {"absolute", file("/evil"), "can't be used"},
        {"drive", file("C:evil"), "can't be used"},
        {"backslash", file("..\\evil"), "can't be used"},
        {"nul", file("a\0b"s), "can't be used"},
        {"twice", craftedArchive({{"a", "1"}, {"a", "2"}}), "two things"},
        {"twice but for case", craftedArchive({{"vm/Disk", "1"}, {"vm/disk", "2"}}), "two things"},
        {"folders that differ in case", craftedArchive({{"VM/a", "1"}, {"vm/b", "2"}}), "two things"},
        {"below a file", craftedArchive({{"a", "1"}, {"a/b", "2"}}), "two things"},
        {"file on a folder", craftedArchive({{"a/b", "1"}, {"a", "2"}}), "two things"},
        {"folder twice", craftedArchive({craftedFolder("a/"), craftedFolder("a/")}), "two things"},
        {"below a link", craftedArchive({craftedLink("vm/l", "d"), {"vm/l/x", "1"}}), "two things"},
        {"link out", craftedArchive({craftedLink("vm/l", "../../etc")}), "leads out"},
        {"absolute link", craftedArchive({craftedLink("vm/l", "/etc/passwd")}), "leads out"},
        {"device", file("dev", [](auto& entry) { entry.mode = S_IFBLK | 0644; }),
         "neither a file nor a folder"},
        {"pipe", file("pipe", [](auto& entry) { entry.mode = S_IFIFO | 0644; }),
         "neither a file nor a folder"},
        {"encrypted", file("a", [](auto& entry) { entry.flags = 1; }), "encrypted"},
        {"strongly encrypted", file("a", [](auto& entry) { entry.flags = 0x41; }), "encrypted"},
        {"other method", file("a", [](auto& entry) { entry.method = 12; }), "method 12"},
        {"wrong checksum", file("a", [](auto& entry) { entry.crc = 1; }), "checksum"},
        {"claims less", file("a", [](auto& entry) { entry.size = 3; }), "longer than the archive says"},
        {"claims more", file("a", [](auto& entry) { entry.size = 300; }), "cut off"},
        {"claims no compressed data", file("a", [](auto& entry) { entry.compressedSize = 0; }), "cut off"},
        {"compressed data cut", file("a", [](auto& entry) { entry.compressedSize = 5; }), "cut off"},
        {"compressed data reaches too far", file("a", [](auto& entry) { entry.compressedSize = 5000; }),
         "outside"},
        {"stored sizes differ", craftedArchive({{.name = "a", .content = "12345", .size = 4}}), "differ"},
        {"more behind the stream",
         file("a", [](auto& entry) { (entry.data = rawDeflated(entry.content))->resize(50); }),
         "more than one"},
        {"garbled stream",
         craftedArchive({{.name = "a", .content = large, .isDeflated = true, .data = garbled}}), "damaged"},
        {"another local name", file("a", [](auto& entry) { entry.localName = "../b"; }), "broken"},
        {"overlapping", craftedArchive({{"a", "12345"}, {.name = "b", .content = "12345", .offset = 0}}),
         "over each other"},
        {"offset outside", file("a", [](auto& entry) { entry.offset = 0x7FFFFFFF; }), "outside"},
        {"data beyond the end", file("a", [](auto& entry) { entry.localExtraBytes = 60000; }), "broken"},
        {"offset in the middle", file("a", [](auto& entry) { entry.offset = 3; }), ""},
        {"folder with content", craftedArchive({{.name = "d/", .content = "x", .mode = S_IFDIR | 0755}}),
         "has content"},
        {"more entries announced", craftedArchive({{"a", "1"}}, {}, 7), "incomplete"},
        {"directory elsewhere", craftedArchive({{"a", "1"}}, {}, {}, 5), "damaged"},
        {"directory far away", craftedArchive({{"a", "1"}}, {}, {}, 0x7FFFFFFF), "damaged"},
        {"unfinished ZIP64", file("a", [](auto& entry) { entry.size = 0xFFFFFFFF; }), ""},
    };
    for (const auto& [what, archive, words] : cases) {
        const auto reason = refusal(archive);
        EXPECT_FALSE(reason.empty()) << what;
        EXPECT_THAT(reason, HasSubstr(words)) << what;
    }
    auto padded = craftedArchive({{"a", "1"}}, "a comment");
    EXPECT_EQ(refusal(padded), "");
    padded.resize(10240);
    EXPECT_EQ(refusal(padded), "");
    EXPECT_FALSE(fs::exists(folder / "evil"));
}

TEST_F(ArchiveTest, EveryCutIsNoticed) {
    const auto path = write([&](ArchiveWriter& writer) {
        writer.addFile("vm/disk", makeFile("disk", 3 * mebibyte, {{mebibyte, randomBytes(2000)}}));
        writer.addText("vm/config", "{}", 0);
    });
    const auto whole = readFile(path);
    for (std::size_t size = 0; size < whole.size(); size += size < whole.size() - 300 ? 97 : 1)
        EXPECT_NE(refusal({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)}), "") << size;
    EXPECT_EQ(refusal(whole), "");
}

TEST_F(ArchiveTest, ACancelledControlStopsBeforeTheNextMebibyte) {
    const auto disk = makeFile("disk", 8 * mebibyte, {{0, randomBytes(8 * mebibyte)}});
    const auto path = write([&](ArchiveWriter& writer) { writer.addFile("disk", disk); });
    const auto archive = open(path);
    struct Counting : ArchiveSink {
        explicit Counting(ArchiveControl& c) : control(c) {}
        void bytes(ByteView content) override {
            count += content.size();
            control.cancel();
        }
        void zeros(std::uint64_t) override {}
        ArchiveControl& control;
        std::uint64_t count = 0;
    };
    ArchiveControl stopping;
    Counting sink(stopping);
    EXPECT_THROW(archive->read(archive->entries().front(), sink, stopping), CancellationError);
    EXPECT_LE(sink.count, mebibyte);
    EXPECT_THROW(write([&](ArchiveWriter& writer) {
                     control.cancel();
                     writer.addFile("disk", disk);
                 }),
                 CancellationError);
}

TEST_F(ArchiveTest, AScratchFileTakesItsPlaceWholeOrLeavesNothing) {
    const auto destination = folder / "backup.zip";
    for (const auto kind : {ArchiveScratchFile::Kind::nameless, ArchiveScratchFile::Kind::named}) {
        writeFileAtomically(destination, "old");
        {
            const ArchiveScratchFile file(destination, kind);
            ASSERT_EQ(::write(file.fd(), "half", 4), 4);
            ArchiveScratchFile::sweep(folder.path());  // one under way is left alone
        }
        EXPECT_EQ(readTextFile(destination), "old");
        {
            ArchiveScratchFile file(destination, kind);
            ASSERT_EQ(::write(file.fd(), "new", 3), 3);
            file.publish();
        }
        EXPECT_EQ(readTextFile(destination), "new");
        EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), {}), 1);
    }
    const auto left = folder / ("Dorvane-Archive-" + UUID::random().text());
    writeFileAtomically(left, "left by a process that is gone");
    writeFileAtomically(folder / "Dorvane-Archive-notes", "the user's own");
    ArchiveScratchFile::sweep(folder.path());
    EXPECT_FALSE(fs::exists(left));
    EXPECT_TRUE(fs::exists(folder / "Dorvane-Archive-notes"));
    EXPECT_THROW(ArchiveScratchFile(folder / "nowhere" / "backup.zip"), FileError);
}

TEST_F(ArchiveTest, PunchingGivesBackWholeBlocksOfLargeFilesOnly) {
    const auto written = [&](const std::string& name, std::uint64_t size) {
        // Zeros that take room: what an archiver without holes leaves.
        return makeFile(name, size,
                        {{0, Bytes(size)}, {3 * mebibyte + 5, toBytes("data")}, {size - 1, Bytes(1)}});
    };
    const auto large = written("large", 70 * mebibyte + 100), small = written("small", 63 * mebibyte);
    const auto before = readFile(large, 80 * mebibyte);
    punchZeroHoles(folder.path());
    EXPECT_EQ(readFile(large, 80 * mebibyte), before);
    EXPECT_LE(allocatedBytes(large), 2 * mebibyte);
    EXPECT_GE(allocatedBytes(large), mebibyte) << "the block with data is left whole";
    EXPECT_GE(allocatedBytes(small), 63 * mebibyte);
    punchZeroHoles(folder / "nowhere");
}

}  // namespace
}  // namespace dorvane::test
