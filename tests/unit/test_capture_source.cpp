// Byte sources: plain and gzip data from memory, files and descriptors; a
// gzip data error told apart from a stream that simply ends, with every byte
// inflated before the error delivered; concatenated members and trailing
// garbage as zlib's gzread treats them; incremental descriptors.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "CaptureBytes.h"
#include "TestSupport.h"
#include "capture/Source.h"

namespace {

using namespace capture_test;
using Tav::capture::ByteSource;
using Tav::capture::openDescriptor;
using Tav::capture::openFile;
using Tav::capture::openMemory;
using Tav::capture::SourceState;
using wexbl_test::TempDir;

std::string asString(const Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

std::string writeBytes(const TempDir& dir, const std::string& name, const Bytes& bytes) {
    return dir.writeFile(name, asString(bytes));
}

/// Writes all of `bytes` to `fd`.
void writeAll(int fd, const Bytes& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t wrote = ::write(fd, bytes.data() + done, bytes.size() - done);
        ASSERT_GT(wrote, 0);
        done += static_cast<std::size_t>(wrote);
    }
}

void appendToFile(const std::string& path, const Bytes& bytes) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND);
    ASSERT_GE(fd, 0);
    writeAll(fd, bytes);
    ::close(fd);
}

Bytes sub(const Bytes& bytes, std::size_t from, std::size_t to) {
    return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(from),
                 bytes.begin() + static_cast<std::ptrdiff_t>(to));
}

TEST(CaptureSource, PlainMemoryIsHandedOutInPlace) {
    const Bytes plain = ByteTable().text("not a gzip stream").bytes();
    auto source = openMemory(plain.data(), plain.size());
    ASSERT_TRUE(source);
    EXPECT_EQ(source->ensure(4), plain.size());
    EXPECT_EQ(source->data(), plain.data());
    EXPECT_FALSE(source->compressed());
    source->consume(4);
    EXPECT_EQ(source->offset(), 4u);
    EXPECT_EQ(source->data(), plain.data() + 4);
    EXPECT_EQ(source->available(), plain.size() - 4);
    EXPECT_EQ(source->ensure(plain.size()), plain.size() - 4);
    EXPECT_EQ(source->state(), SourceState::End);
    EXPECT_TRUE(source->error().empty());
    EXPECT_FALSE(source->wouldBlock());
}

TEST(CaptureSource, EmptyMemoryAndEmptyFileEndAtOnce) {
    auto memory = openMemory(nullptr, 0);
    EXPECT_EQ(memory->ensure(1), 0u);
    EXPECT_EQ(memory->state(), SourceState::End);
    EXPECT_FALSE(memory->compressed());

    TempDir dir;
    auto file = openFile(dir.writeFile("empty", ""));
    ASSERT_TRUE(file);
    EXPECT_EQ(file->ensure(24), 0u);
    EXPECT_EQ(file->state(), SourceState::End);
    EXPECT_FALSE(file->compressed());
}

TEST(CaptureSource, OneGzipMagicByteAloneIsPlain) {
    const Bytes one = {0x1f};
    auto source = openMemory(one.data(), one.size());
    EXPECT_EQ(drain(*source, 16), one);
    EXPECT_FALSE(source->compressed());
    EXPECT_EQ(source->state(), SourceState::End);
}

TEST(CaptureSource, GzipMagicAloneIsAnEmptyTruncatedStream) {
    const Bytes two = {0x1f, 0x8b};
    auto source = openMemory(two.data(), two.size());
    EXPECT_EQ(source->ensure(1), 0u);
    EXPECT_TRUE(source->compressed());
    EXPECT_EQ(source->state(), SourceState::End);
    EXPECT_TRUE(source->error().empty());
}

TEST(CaptureSource, GzipMemoryInflatesInEveryStepSize) {
    const Bytes data = noise(3 * 1024 * 1024 + 17, 1);
    const Bytes member = gzip(data);
    for (const std::size_t step :
         {std::size_t(1), std::size_t(7), std::size_t(25016), ByteSource::kWindowLimit}) {
        auto source = openMemory(member.data(), member.size());
        const Bytes got = drain(*source, step);
        EXPECT_EQ(got.size(), data.size()) << "step " << step;
        EXPECT_TRUE(got == data) << "step " << step;
        EXPECT_TRUE(source->compressed());
        EXPECT_EQ(source->state(), SourceState::End);
        EXPECT_EQ(source->offset(), data.size());
    }
}

TEST(CaptureSource, LargeFilesPlainAndGzip) {
    TempDir dir;
    const Bytes data = noise(5 * 1024 * 1024 + 3, 2);
    for (const bool compress : {false, true}) {
        const std::string path =
            writeBytes(dir, compress ? "big.gz" : "big", compress ? gzip(data) : data);
        auto source = openFile(path);
        ASSERT_TRUE(source);
        const Bytes got = drain(*source, 25016);
        EXPECT_TRUE(got == data) << "compressed " << compress;
        EXPECT_EQ(source->compressed(), compress);
        EXPECT_EQ(source->state(), SourceState::End);
    }
}

TEST(CaptureSource, ARequestIsContiguousAcrossRefills) {
    // 100 bytes consumed, then 1 MiB asked for again and again: the rest of
    // each window and the next inflated bytes must lie side by side.
    const Bytes data = noise(4 * 1024 * 1024, 3);
    const Bytes member = gzip(data);
    auto source = openMemory(member.data(), member.size());
    // A request above the limit is served as the limit.
    EXPECT_GE(source->ensure(3 * ByteSource::kWindowLimit), ByteSource::kWindowLimit);
    EXPECT_EQ(source->state(), SourceState::Ok);
    source->consume(100);
    std::size_t position = 100;
    while (position + ByteSource::kWindowLimit <= data.size()) {
        ASSERT_GE(source->ensure(ByteSource::kWindowLimit), ByteSource::kWindowLimit);
        ASSERT_EQ(std::memcmp(source->data(), data.data() + position, ByteSource::kWindowLimit), 0)
            << "at " << position;
        source->consume(ByteSource::kWindowLimit - 1);
        position += ByteSource::kWindowLimit - 1;
    }
    const std::size_t rest = data.size() - position;
    EXPECT_EQ(source->ensure(ByteSource::kWindowLimit), rest);
    EXPECT_EQ(source->state(), SourceState::End);
    EXPECT_EQ(std::memcmp(source->data(), data.data() + position, rest), 0);
}

TEST(CaptureSource, ConcatenatedMembersFollowOneAnother) {
    const Bytes first = noise(70000, 4);
    const Bytes second = noise(12345, 5);
    const Bytes stream = concat(concat(gzip(first), gzip(Bytes())), gzip(second));
    auto source = openMemory(stream.data(), stream.size());
    EXPECT_TRUE(drain(*source, 1000) == concat(first, second));
    EXPECT_EQ(source->state(), SourceState::End);
}

TEST(CaptureSource, TrailingGarbageAfterAMemberIsIgnored) {
    const Bytes data = noise(5000, 6);
    for (const Bytes& garbage : {ByteTable().text("garbage after the member").bytes(), Bytes{0x1f},
                                 Bytes{0x00, 0x8b, 0x1f}}) {
        const Bytes stream = concat(gzip(data), garbage);
        auto source = openMemory(stream.data(), stream.size());
        EXPECT_TRUE(drain(*source, 512) == data);
        EXPECT_EQ(source->state(), SourceState::End);
        EXPECT_TRUE(source->error().empty());
    }
}

TEST(CaptureSource, ABadSecondMemberHeaderIsADataErrorAfterTheFirstMember) {
    const Bytes data = noise(5000, 7);
    const Bytes stream =
        concat(gzip(data), ByteTable().u8(0x1f).u8(0x8b).u8(0x00).fill(7, 0).bytes());
    auto source = openMemory(stream.data(), stream.size());
    EXPECT_TRUE(drain(*source, 512) == data);
    EXPECT_EQ(source->state(), SourceState::DataError);
    EXPECT_EQ(source->error(), "unknown compression method");
    EXPECT_EQ(source->errorOffset(), data.size());
}

TEST(CaptureSource, WrongCrcDeliversEveryByteThenDataError) {
    const Bytes data = noise(200000, 8);
    const Bytes stream = withBadCrc(gzip(data));
    auto source = openMemory(stream.data(), stream.size());
    // One request for more than there is: everything inflated comes back,
    // with the error already known.
    EXPECT_EQ(source->ensure(data.size() + 1), data.size());
    EXPECT_EQ(source->state(), SourceState::DataError);
    EXPECT_EQ(source->error(), "incorrect data check");
    EXPECT_EQ(source->errorOffset(), data.size());
    EXPECT_EQ(std::memcmp(source->data(), data.data(), data.size()), 0);
    source->consume(1000);
    EXPECT_EQ(source->errorOffset(), data.size());
    EXPECT_EQ(source->ensure(data.size()), data.size() - 1000);
}

TEST(CaptureSource, WrongLengthIsADataError) {
    const Bytes data = noise(3000, 9);
    const Bytes stream = withBadLength(gzip(data));
    auto source = openMemory(stream.data(), stream.size());
    EXPECT_TRUE(drain(*source, 100) == data);
    EXPECT_EQ(source->state(), SourceState::DataError);
    EXPECT_EQ(source->error(), "incorrect length check");
    EXPECT_EQ(source->errorOffset(), data.size());
}

TEST(CaptureSource, CorruptDeflateDataInFileAndMemory) {
    // Several windows and input chunks of good data before the bad block.
    const Bytes good = noise(2500000, 10);
    const Bytes stream = gzipThenBadBlock(good);
    TempDir dir;
    auto file = openFile(writeBytes(dir, "bad.gz", stream));
    auto memory = openMemory(stream.data(), stream.size());
    for (ByteSource* source : {file.get(), memory.get()}) {
        EXPECT_TRUE(drain(*source, 25016) == good);
        EXPECT_EQ(source->state(), SourceState::DataError);
        EXPECT_EQ(source->error(), "invalid block type");
        EXPECT_EQ(source->errorOffset(), good.size());
        EXPECT_EQ(source->offset(), good.size());
    }
}

TEST(CaptureSource, TruncatedGzipEndsCleanlyAfterWhatWasInflated) {
    const Bytes first = noise(40000, 11);
    const Bytes second = noise(40000, 12);
    // Cut right after a flush point: exactly the first part inflates.
    const Bytes flushed = gzipParts({first}, false);
    auto exact = openMemory(flushed.data(), flushed.size());
    EXPECT_TRUE(drain(*exact, 4096) == first);
    EXPECT_EQ(exact->state(), SourceState::End);
    EXPECT_TRUE(exact->error().empty());

    // Cut anywhere: a prefix of the data, then End.
    const Bytes whole = gzipParts({first, second}, true);
    const Bytes cut = truncated(whole, whole.size() - 5000);
    auto source = openMemory(cut.data(), cut.size());
    const Bytes got = drain(*source, 4096);
    EXPECT_EQ(source->state(), SourceState::End);
    EXPECT_GE(got.size(), first.size());
    EXPECT_LT(got.size(), first.size() + second.size());
    EXPECT_TRUE(got == sub(concat(first, second), 0, got.size()));

    // Only the member header.
    const Bytes header = truncated(whole, 10);
    auto bare = openMemory(header.data(), header.size());
    EXPECT_EQ(bare->ensure(1), 0u);
    EXPECT_EQ(bare->state(), SourceState::End);
    EXPECT_TRUE(bare->compressed());
}

TEST(CaptureSource, AFileThatIsNotGzipIsReadAsIs) {
    TempDir dir;
    const Bytes plain = ByteTable().u8(0x1f).u8(0x8c).text("almost a gzip magic").bytes();
    auto source = openFile(writeBytes(dir, "plain", plain));
    ASSERT_TRUE(source);
    EXPECT_TRUE(drain(*source, 3) == plain);
    EXPECT_FALSE(source->compressed());
}

TEST(CaptureSource, OpenFailureKeepsErrno) {
    TempDir dir;
    errno = 0;
    EXPECT_FALSE(openFile(dir.slash() + "missing.pcap"));
    EXPECT_EQ(errno, ENOENT);
}

TEST(CaptureSource, ReadErrorCarriesTheSystemText) {
    TempDir dir;
    const int fd = ::open(dir.path().c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    auto source = openDescriptor(fd, true);
    EXPECT_EQ(source->ensure(16), 0u);
    EXPECT_EQ(source->state(), SourceState::ReadError);
    EXPECT_EQ(source->error(), std::strerror(EISDIR));
    EXPECT_EQ(source->errorOffset(), 0u);
}

TEST(CaptureSource, ABadDescriptorIsAReadError) {
    auto source = openDescriptor(-1, false);
    EXPECT_EQ(source->ensure(1), 0u);
    EXPECT_EQ(source->state(), SourceState::ReadError);
    EXPECT_EQ(source->error(), std::strerror(EBADF));
}

TEST(CaptureSource, DescriptorOwnership) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    openDescriptor(fds[0], false).reset();
    EXPECT_NE(::fcntl(fds[0], F_GETFD), -1);
    openDescriptor(fds[0], true).reset();
    errno = 0;
    EXPECT_EQ(::fcntl(fds[0], F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
    ::close(fds[1]);
}

TEST(CaptureSource, StandardInputIsDash) {
    TempDir dir;
    const Bytes data = noise(30000, 13);
    const std::string path = writeBytes(dir, "stdin.gz", gzip(data));
    const int saved = ::dup(STDIN_FILENO);
    ASSERT_GE(saved, 0);
    const int fd = ::open(path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::dup2(fd, STDIN_FILENO), STDIN_FILENO);
    ::close(fd);
    {
        auto source = openFile("-");
        ASSERT_TRUE(source);
        EXPECT_TRUE(drain(*source, 1000) == data);
        EXPECT_TRUE(source->compressed());
    }
    // Standard input stays open.
    EXPECT_NE(::fcntl(STDIN_FILENO, F_GETFD), -1);
    ::dup2(saved, STDIN_FILENO);
    ::close(saved);
}

TEST(CaptureSource, NonBlockingPipeWouldBlock) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    ASSERT_EQ(::fcntl(fds[0], F_SETFL, O_NONBLOCK), 0);
    auto source = openDescriptor(fds[0], true);
    EXPECT_EQ(source->ensure(1), 0u);
    EXPECT_TRUE(source->wouldBlock());
    EXPECT_EQ(source->state(), SourceState::Ok);

    writeAll(fds[1], ByteTable().text("ABCDEFGHIJ").bytes());
    EXPECT_EQ(source->ensure(20), 10u);
    EXPECT_TRUE(source->wouldBlock());
    EXPECT_EQ(source->state(), SourceState::Ok);
    EXPECT_FALSE(source->compressed());

    writeAll(fds[1], ByteTable().text("KLMNOPQRST").bytes());
    EXPECT_EQ(source->ensure(20), 20u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(source->data()), 20),
              "ABCDEFGHIJKLMNOPQRST");
    ::close(fds[1]);
    EXPECT_EQ(source->ensure(21), 20u);
    EXPECT_FALSE(source->wouldBlock());
    EXPECT_EQ(source->state(), SourceState::End);
}

TEST(CaptureSource, GzipOverAPipeWaitsForTheSecondMagicByte) {
    const Bytes data = noise(10000, 14);
    const Bytes member = gzip(data);
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    ASSERT_EQ(::fcntl(fds[0], F_SETFL, O_NONBLOCK), 0);
    auto source = openDescriptor(fds[0], true);
    writeAll(fds[1], sub(member, 0, 1));
    EXPECT_EQ(source->ensure(1), 0u);
    EXPECT_TRUE(source->wouldBlock());
    writeAll(fds[1], sub(member, 1, member.size()));
    ::close(fds[1]);
    EXPECT_TRUE(drain(*source, 999) == data);
    EXPECT_TRUE(source->compressed());
    EXPECT_EQ(source->state(), SourceState::End);
}

TEST(CaptureSource, FollowingAGrowingPlainFile) {
    TempDir dir;
    const Bytes data = noise(50000, 15);
    const std::string path = writeBytes(dir, "growing", sub(data, 0, 20000));
    auto source = openDescriptor(::open(path.c_str(), O_RDONLY), true, true);
    EXPECT_EQ(source->ensure(30000), 20000u);
    EXPECT_TRUE(source->wouldBlock());
    EXPECT_EQ(source->state(), SourceState::Ok);
    source->consume(20000);
    appendToFile(path, sub(data, 20000, data.size()));
    EXPECT_EQ(source->ensure(30000), 30000u);
    EXPECT_EQ(std::memcmp(source->data(), data.data() + 20000, 30000), 0);
    source->consume(30000);
    // End of file is not the end while following.
    EXPECT_EQ(source->ensure(1), 0u);
    EXPECT_TRUE(source->wouldBlock());
    EXPECT_EQ(source->state(), SourceState::Ok);
}

TEST(CaptureSource, FollowingAGrowingGzipFile) {
    TempDir dir;
    const Bytes data = noise(300000, 16);
    const Bytes member = gzip(data);
    const std::size_t split = member.size() / 2;
    const std::string path = writeBytes(dir, "growing.gz", sub(member, 0, split));
    auto source = openDescriptor(::open(path.c_str(), O_RDONLY), true, true);
    const std::size_t early = source->ensure(data.size());
    EXPECT_LT(early, data.size());
    EXPECT_TRUE(source->wouldBlock());
    EXPECT_EQ(source->state(), SourceState::Ok);
    EXPECT_EQ(std::memcmp(source->data(), data.data(), early), 0);

    appendToFile(path, sub(member, split, member.size()));
    EXPECT_EQ(source->ensure(data.size()), data.size());
    EXPECT_EQ(std::memcmp(source->data(), data.data(), data.size()), 0);
    source->consume(data.size());
    // Another member may still be appended.
    EXPECT_EQ(source->ensure(1), 0u);
    EXPECT_TRUE(source->wouldBlock());
    const Bytes more = noise(100, 17);
    appendToFile(path, gzip(more));
    EXPECT_EQ(source->ensure(100), 100u);
    EXPECT_EQ(std::memcmp(source->data(), more.data(), 100), 0);
}

// ---- Recovery after a data error ------------------------------------------------------------

TEST(CaptureSourceRecovery, CorruptDataResumesAtTheNextMember) {
    const Bytes good = noise(300000, 21);
    const Bytes later = noise(50000, 22);
    const Bytes file = concat(gzipThenBadBlock(good), concat(noise(1000, 23), gzip(later)));
    auto source = openMemory(file.data(), file.size());
    EXPECT_TRUE(drain(*source, 4096) == good);
    ASSERT_EQ(source->state(), SourceState::DataError);
    std::uint64_t skipped = 0;
    ASSERT_TRUE(source->recover(skipped));
    EXPECT_EQ(source->state(), SourceState::Ok);
    // The bad block's remaining bytes and the noise, give or take the byte
    // inflate stopped at.
    EXPECT_GE(skipped, 1000u);
    EXPECT_LE(skipped, 1003u);
    EXPECT_TRUE(drain(*source, 4096) == later);
    EXPECT_EQ(source->state(), SourceState::End);
}

TEST(CaptureSourceRecovery, CorruptDataResumesAfterAFullFlushPoint) {
    // One member written in three independent pieces (full flushes), the
    // second piece's first block replaced by a block of the reserved type.
    const Bytes a = noise(100000, 24);
    const Bytes b = noise(80000, 25);
    const Bytes c = noise(60000, 26);
    z_stream stream = z_stream();
    ASSERT_EQ(deflateInit2(&stream, 6, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY), Z_OK);
    std::vector<Bytes> pieces;
    for (const Bytes* part : {&a, &b, &c}) {
        Bytes out(part->size() + 1024);
        stream.next_in = const_cast<unsigned char*>(part->data());
        stream.avail_in = static_cast<uInt>(part->size());
        stream.next_out = out.data();
        stream.avail_out = static_cast<uInt>(out.size());
        const int flush = part == &c ? Z_FINISH : Z_FULL_FLUSH;
        ASSERT_EQ(deflate(&stream, flush), flush == Z_FINISH ? Z_STREAM_END : Z_OK);
        out.resize(out.size() - stream.avail_out);
        pieces.push_back(out);
    }
    deflateEnd(&stream);
    pieces[1][0] = 0x06;  // BFINAL 0, BTYPE 11
    const Bytes file = concat(concat(pieces[0], pieces[1]), pieces[2]);
    TempDir dir;
    auto fromFile = openFile(writeBytes(dir, "flushed.gz", file));
    auto fromMemory = openMemory(file.data(), file.size());
    for (ByteSource* source : {fromFile.get(), fromMemory.get()}) {
        EXPECT_TRUE(drain(*source, 1000) == a);
        ASSERT_EQ(source->state(), SourceState::DataError);
        EXPECT_EQ(source->error(), "invalid block type");
        std::uint64_t skipped = 0;
        ASSERT_TRUE(source->recover(skipped));
        // Everything of the second piece up to the flush point that ends it.
        EXPECT_LE(skipped, pieces[1].size());
        EXPECT_GE(skipped, pieces[1].size() - 5);
        // The third piece, then the member's trailer (not checked) and the end.
        EXPECT_TRUE(drain(*source, 1000) == c);
        EXPECT_EQ(source->state(), SourceState::End);
    }
}

TEST(CaptureSourceRecovery, WithoutAPointToResumeTheErrorStays) {
    const Bytes good = noise(5000, 27);
    const Bytes file = concat(gzipThenBadBlock(good), noise(70000, 28));
    auto source = openMemory(file.data(), file.size());
    EXPECT_TRUE(drain(*source, 512) == good);
    ASSERT_EQ(source->state(), SourceState::DataError);
    std::uint64_t skipped = 0;
    EXPECT_FALSE(source->recover(skipped));
    EXPECT_EQ(source->state(), SourceState::DataError);
    EXPECT_EQ(source->error(), "invalid block type");
    EXPECT_EQ(source->ensure(1), 0u);
}

TEST(CaptureSourceRecovery, OnlyADataErrorOfCompressedDataIsRecovered) {
    const Bytes plain = noise(1000, 29);
    auto source = openMemory(plain.data(), plain.size());
    std::uint64_t skipped = 7;
    EXPECT_FALSE(source->recover(skipped));
    EXPECT_EQ(skipped, 0u);
    EXPECT_TRUE(drain(*source, 100) == plain);
    const Bytes member = gzip(plain);
    auto clean = openMemory(member.data(), member.size());
    EXPECT_FALSE(clean->recover(skipped));
    EXPECT_TRUE(drain(*clean, 100) == plain);
}

// ---- The fast inflater against zlib ---------------------------------------------------------

/// Everything a source delivers and how it ends.
struct Drained {
    Bytes bytes;
    SourceState state;
    std::string error;
    std::uint64_t errorOffset;
};

Drained drainAll(ByteSource& source, std::size_t step) {
    Drained drained;
    drained.bytes = drain(source, step);
    drained.state = source.state();
    drained.error = source.error();
    drained.errorOffset = source.errorOffset();
    return drained;
}

/// The same stream read with the fastest inflater and with zlib alone, from
/// memory and from a file, `step` bytes at a time, must come out the same.
void expectInflatersAgree(const Bytes& stream, const std::string& what, std::size_t step = 25016) {
    TempDir dir;
    const std::string path = writeBytes(dir, "stream.gz", stream);
    auto zlibMemory = openMemory(stream.data(), stream.size(), Tav::capture::Inflater::Zlib);
    const Drained expected = drainAll(*zlibMemory, step);
    auto fastMemory = openMemory(stream.data(), stream.size(), Tav::capture::Inflater::Fastest);
    auto fastFile = openFile(path, Tav::capture::Inflater::Fastest);
    for (ByteSource* source : {fastMemory.get(), fastFile.get()}) {
        const Drained actual = drainAll(*source, step);
        EXPECT_TRUE(actual.bytes == expected.bytes)
            << what << ": " << actual.bytes.size() << " bytes, zlib " << expected.bytes.size();
        EXPECT_EQ(actual.state, expected.state) << what;
        EXPECT_EQ(actual.error, expected.error) << what;
        EXPECT_EQ(actual.errorOffset, expected.errorOffset) << what;
    }
}

TEST(CaptureSourceInflaters, GoodDamagedAndCutStreamsComeOutAsWithZlib) {
    const Bytes first = noise(300000, 31);
    const Bytes second = noise(70000, 32);
    const Bytes good = concat(gzip(first), gzip(second, 9));
    expectInflatersAgree(good, "two members");
    expectInflatersAgree(concat(good, Bytes{0x1f, 0x8b, 0x08}), "a member cut in its header");
    expectInflatersAgree(withBadCrc(gzip(first)), "wrong CRC");
    expectInflatersAgree(withBadLength(gzip(second)), "wrong length");
    expectInflatersAgree(gzipThenBadBlock(first), "reserved block type");
    expectInflatersAgree(concat(gzip(first), Bytes{0x1f, 0x8b, 0x00, 0, 0, 0, 0, 0, 0, 0}),
                         "unknown method in the second member");
    // Cut at many points, including inside the header and the trailer.
    for (std::size_t cut : {std::size_t(1), std::size_t(5), std::size_t(11), std::size_t(100),
                            good.size() / 3, good.size() / 2, good.size() - 9, good.size() - 3}) {
        expectInflatersAgree(truncated(good, cut), "cut at " + std::to_string(cut));
    }
}

TEST(CaptureSourceInflaters, AStreamCutInItsLastMatchComesOutAsWithZlib) {
    // A run of zeros at the end is one long match after another. Cut short,
    // the fast inflater hands the member to zlib when the input ends; zlib
    // passes over what the reader consumed, which stops inside a match, and
    // the rest of that match is still to come out of zlib without any more
    // input. (Before, the source ended there, those bytes lost.)
    const Bytes data = concat(noise(5000, 41), Bytes(1200, 0));
    const Bytes whole = gzip(data);
    // The trailer's 8 bytes, then the last bytes of the deflate data.
    for (std::size_t cut = whole.size() - 9; cut > whole.size() - 24; --cut) {
        for (std::size_t step : {std::size_t(7), std::size_t(1000), std::size_t(4093)}) {
            expectInflatersAgree(truncated(whole, cut),
                                 "cut at " + std::to_string(cut) + ", step " + std::to_string(step),
                                 step);
        }
    }
}

TEST(CaptureSourceInflaters, RandomlyDamagedStreamsComeOutAsWithZlib) {
    // Single flipped bytes all over a stream of compressible data: some give
    // invalid codes or distances, some wrong data caught by the CRC.
    Bytes text;
    for (int i = 0; i < 20000; ++i) {
        const std::string line = "record " + std::to_string(i % 977) + " level " +
                                 std::to_string(i % 7) + " payload " +
                                 std::to_string((i * 2654435761u) % 100000) + "\n";
        text.insert(text.end(), line.begin(), line.end());
    }
    const Bytes member = gzip(text);
    std::uint32_t seed = 7;
    for (int round = 0; round < 60; ++round) {
        seed = seed * 1103515245u + 12345u;
        Bytes damaged = member;
        const std::size_t at = 10 + (seed >> 8) % (damaged.size() - 18);
        damaged[at] ^= static_cast<unsigned char>(1u << (seed % 8));
        expectInflatersAgree(damaged, "byte " + std::to_string(at) + " flipped");
    }
}

// ---- Inflating in a thread of its own --------------------------------------------------------

/// A stream read directly and through a pipeline must come out the same,
/// from memory and from a file (whose bytes the source reads or inflates
/// straight into the pipeline's chunks).
void expectPipelineAgrees(const Bytes& stream, const std::string& what, std::size_t step) {
    TempDir dir;
    const std::string path = writeBytes(dir, "stream", stream);
    auto direct = openMemory(stream.data(), stream.size());
    const Drained expected = drainAll(*direct, step);
    for (const bool fromFile : {false, true}) {
        auto piped = Tav::capture::pipelined(fromFile ? openFile(path)
                                                      : openMemory(stream.data(), stream.size()));
        const std::string where = what + (fromFile ? ", file" : ", memory");
        const Drained actual = drainAll(*piped, step);
        EXPECT_TRUE(actual.bytes == expected.bytes)
            << where << ": " << actual.bytes.size() << " bytes, " << expected.bytes.size();
        EXPECT_EQ(actual.state, expected.state) << where;
        EXPECT_EQ(actual.error, expected.error) << where;
        EXPECT_EQ(actual.errorOffset, expected.errorOffset) << where;
        EXPECT_EQ(piped->compressed(), direct->compressed()) << where;
        EXPECT_EQ(piped->offset(), direct->offset()) << where;
    }
}

TEST(CaptureSourcePipeline, BytesEndsAndErrorsComeThroughInOrder) {
    const Bytes big = noise(3000000, 41);
    // Requests that leave a few bytes of a chunk for the next, more than fit
    // in front of it (65 KiB and more), and more than a chunk holds.
    for (const std::size_t step : {std::size_t(1000), std::size_t(25016), std::size_t(70001),
                                   std::size_t(200003), std::size_t(1) << 20}) {
        expectPipelineAgrees(big, "plain", step);
        expectPipelineAgrees(gzip(big), "gzip", step);
        expectPipelineAgrees(withBadCrc(gzip(big)), "wrong CRC", step);
        expectPipelineAgrees(gzipThenBadBlock(big), "reserved block type", step);
        expectPipelineAgrees(truncated(gzip(big), 1234567), "cut", step);
        expectPipelineAgrees(Bytes(), "empty", step);
    }
}

TEST(CaptureSourcePipeline, ReadingIntoABufferGivesTheBytesEnsureGives) {
    // readInto() between ensure() and consume(), with bytes still in the
    // source's window and without, plain and gzip, file and memory: the
    // bytes of the stream in order, and the source's state and offset as
    // draining it gives them.
    const Bytes data = noise(2500000, 46);
    TempDir dir;
    for (const bool compressed : {false, true}) {
        const Bytes stream =
            compressed ? concat(gzip(sub(data, 0, 900000)), gzip(sub(data, 900000, data.size())))
                       : data;
        const std::string path = writeBytes(dir, "stream", stream);
        for (const bool fromFile : {false, true}) {
            const std::string what =
                std::string(compressed ? "gzip" : "plain") + (fromFile ? ", file" : ", memory");
            auto source = fromFile ? openFile(path) : openMemory(stream.data(), stream.size());
            Bytes out;
            std::uint32_t seed = 5;
            for (int round = 0; round < 10000; ++round) {
                seed = seed * 1103515245u + 12345u;
                // Now and then more than the source's window holds.
                const std::size_t n = round % 7 == 6 ? 2000000 : 1 + (seed >> 8) % 300000;
                if (seed % 3 == 0) {
                    // Some bytes through the window first.
                    const std::size_t have = source->ensure(n % 5000 + 1);
                    const std::size_t take = std::min(have, n % 5000 + 1);
                    out.insert(out.end(), source->data(), source->data() + take);
                    source->consume(take);
                }
                Bytes buffer(n);
                const std::size_t got = source->readInto(buffer.data(), n);
                ASSERT_LE(got, n) << what;
                out.insert(out.end(), buffer.begin(),
                           buffer.begin() + static_cast<std::ptrdiff_t>(got));
                if (got < n) {
                    break;
                }
            }
            EXPECT_TRUE(out == data) << what << ": " << out.size() << " bytes";
            EXPECT_EQ(source->state(), SourceState::End) << what;
            EXPECT_EQ(source->offset(), data.size()) << what;
            EXPECT_EQ(source->ensure(1), 0u) << what;
        }
    }
}

TEST(CaptureSourcePipeline, RecoveryIsPassedToTheInflatingThread) {
    const Bytes good = noise(300000, 42);
    const Bytes later = noise(50000, 43);
    const Bytes file = concat(gzipThenBadBlock(good), concat(noise(1000, 44), gzip(later)));
    auto source = Tav::capture::pipelined(openMemory(file.data(), file.size()));
    EXPECT_TRUE(drain(*source, 4096) == good);
    ASSERT_EQ(source->state(), SourceState::DataError);
    std::uint64_t skipped = 0;
    ASSERT_TRUE(source->recover(skipped));
    EXPECT_GE(skipped, 1000u);
    EXPECT_LE(skipped, 1003u);
    EXPECT_EQ(source->state(), SourceState::Ok);
    EXPECT_TRUE(drain(*source, 4096) == later);
    EXPECT_EQ(source->state(), SourceState::End);
    // Nothing more to recover from.
    EXPECT_FALSE(source->recover(skipped));
}

TEST(CaptureSourcePipeline, ASourceLeftEarlyStopsItsThread) {
    const Bytes big = gzip(noise(5000000, 45));
    for (int i = 0; i < 20; ++i) {
        auto source = Tav::capture::pipelined(openMemory(big.data(), big.size()));
        EXPECT_GE(source->ensure(100), 100u);
        // Destroyed while the thread is inflating ahead or waiting for room.
    }
    auto failing = Tav::capture::pipelined(Tav::capture::openFile("/nonexistent/x.pcap"));
    EXPECT_EQ(failing, nullptr);
}

/// Idle work that has `tasks` things to do, one a call, and counts its calls
/// and the thread of the last.
struct CountedWork {
    std::mutex mutex;
    std::condition_variable called;
    int tasks = 0;
    int calls = 0;
    std::thread::id where;

    std::function<bool()> work() {
        return [this] {
            std::lock_guard<std::mutex> lock(mutex);
            ++calls;
            where = std::this_thread::get_id();
            called.notify_all();
            if (tasks == 0) {
                return false;
            }
            --tasks;
            return true;
        };
    }
    /// Waits (30 s at the most) for `count` calls in all: whether they came.
    bool waitForCalls(int count) {
        std::unique_lock<std::mutex> lock(mutex);
        return called.wait_for(lock, std::chrono::seconds(30), [&] { return calls >= count; });
    }
    void give(int more) {
        std::lock_guard<std::mutex> lock(mutex);
        tasks = more;
    }
    int tasksLeft() {
        std::lock_guard<std::mutex> lock(mutex);
        return tasks;
    }
    int callCount() {
        std::lock_guard<std::mutex> lock(mutex);
        return calls;
    }
    std::thread::id lastThread() {
        std::lock_guard<std::mutex> lock(mutex);
        return where;
    }
};

TEST(CaptureSourcePipeline, IdleWorkRunsInTheThreadWhileItsQueueIsFull) {
    const Bytes big = noise(5000000, 46);
    auto direct = openMemory(big.data(), big.size());
    EXPECT_FALSE(direct->setIdleWork([] { return false; }))
        << "a source without a thread of its own takes no idle work";

    auto source = Tav::capture::pipelined(openMemory(big.data(), big.size()));
    CountedWork counted;
    counted.give(3);
    ASSERT_TRUE(source->setIdleWork(counted.work()));
    // Nothing is read: the thread fills its queue, then works until nothing
    // is left (three tasks and the call that finds none).
    ASSERT_TRUE(counted.waitForCalls(4));
    EXPECT_EQ(counted.tasksLeft(), 0);
    EXPECT_NE(counted.lastThread(), std::this_thread::get_id());
    // Asked again once told that there is more.
    counted.give(1);
    source->idleWorkQueued();
    ASSERT_TRUE(counted.waitForCalls(6));
    EXPECT_EQ(counted.tasksLeft(), 0);
    // Withdrawn: never called again, and the bytes come through whole.
    source->setIdleWork(nullptr);
    const int after = counted.callCount();
    counted.give(5);
    source->idleWorkQueued();
    EXPECT_TRUE(drain(*source, 65536) == big);
    EXPECT_EQ(source->state(), SourceState::End);
    EXPECT_EQ(counted.callCount(), after);
}

TEST(CaptureSourcePipeline, IdleWorkRunsInTheThreadOnceTheInnerSourceStopped) {
    // Fewer bytes than the queue holds: it never fills, and the work is done
    // once the stream is read to its end, while the reader still has every
    // byte before it; and again when told, until the source goes.
    const Bytes small = noise(100000, 47);
    auto source = Tav::capture::pipelined(openMemory(small.data(), small.size()));
    CountedWork counted;
    counted.give(2);
    ASSERT_TRUE(source->setIdleWork(counted.work()));
    ASSERT_TRUE(counted.waitForCalls(3));
    EXPECT_EQ(counted.tasksLeft(), 0);
    EXPECT_NE(counted.lastThread(), std::this_thread::get_id());
    counted.give(1);
    source->idleWorkQueued();
    ASSERT_TRUE(counted.waitForCalls(5));
    EXPECT_EQ(counted.tasksLeft(), 0);
    source->setIdleWork(nullptr);
    EXPECT_TRUE(drain(*source, 4096) == small);
    EXPECT_EQ(source->state(), SourceState::End);
}

}  // namespace
