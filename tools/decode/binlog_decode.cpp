// binlog-decode: decodes binary log captures into text lines, JSON Lines or
// CSV.
//
//   binlog-decode [options] -d DICTIONARY_DIR CAPTURE...
//   binlog-decode [options] DICTIONARY_DIR CAPTURE...
//
// Each CAPTURE is a pcap, pcapng or pcap.gz file, a directory whose captures
// are decoded in name order, or "-" for standard input. Records go to
// standard output (or --output), diagnostics to standard error.
//
// Every capture is read once, as its bytes arrive, through the library's
// capture streams; one stream session carries the statistics and the level
// table from one capture to the next, as one reader's readBinaryFiledata
// calls do, so the text lines are the ones readBinaryFiledata prints.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "../common/CliMessage.h"
#include "BinaryLogXmlReader.h"
#include "CaptureInputs.h"
#include "Diagnostics.h"
#include "Lint.h"
#include "Listen.h"
#include "Options.h"
#include "Output.h"
#include "Progress.h"
#include "Report.h"
#include "Summary.h"
#include "WexOamBinLogXmlReader/CaptureStream.h"
#include "WexOamBinLogXmlReader/Filter.h"
#include "WexOamBinLogXmlReader/ParallelStream.h"
#include "Writer.h"

const char* const wexbl_cli::kProgramName = "binlog-decode";

namespace {

using wexbl_cli::kExitFailure;
using wexbl_cli::kExitOk;
using wexbl_cli::kExitUsage;
using wexbl_cli::message;
using wexbl_decode::CaptureInput;
using wexbl_decode::Diagnostics;
using wexbl_decode::Format;
using wexbl_decode::Options;
using wexbl_decode::Output;
using wexbl_decode::Progress;
using wexbl_decode::When;
using wexbl_decode::Writer;

constexpr std::uint32_t kLinkTypeEthernet = 1;
constexpr std::uint32_t kLinkTypeBinLog = 150;
constexpr int kExitInterrupted = 130;

/// Shows every error the dictionary checker finds in a dictionary that
/// loaded, once, as a warning: such a dictionary decodes, but shows wrong,
/// shifted or missing values. Its warnings are left to binlog-lint.
void warnAboutDictionary(const char* dictionary) {
    for (const wexbl_lint::Finding& finding : wexbl_lint::lintDictionary(dictionary)) {
        if (finding.severity != wexbl_lint::Severity::Error) {
            continue;
        }
        std::string where = finding.file;
        if (finding.line > 0) {
            where += ":" + std::to_string(finding.line);
        }
        message("warning: %s: %s [%s]", where.c_str(), finding.message.c_str(),
                finding.check.c_str());
    }
}

// ---- Stopping on a signal ------------------------------------------------------------

/// Set by SIGINT and SIGTERM; the streams being read are asked to stop.
std::atomic<bool> interrupted{false};
/// Set by SIGUSR1 while listening: the summary is printed.
std::atomic<bool> summaryAsked{false};
constexpr int kMaxActive = 1024;
std::atomic<Tav::CaptureStream*> active[kMaxActive];

void onSignal(int) {
    interrupted.store(true);
    for (auto& stream : active) {
        if (Tav::CaptureStream* s = stream.load()) {
            s->requestStop();
        }
    }
}

void installSignalHandlers() {
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    // No SA_RESTART: a read waiting for input returns, and the stream stops.
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

void onSummarySignal(int) {
    summaryAsked.store(true);
}

void installSummarySignal() {
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = onSummarySignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGUSR1, &action, nullptr);
}

/// How long a followed capture that has nothing new is left alone.
constexpr long kFollowPollNs = 150 * 1000 * 1000;
/// The longest wait on a descriptor before the signals are looked at again.
constexpr int kDescriptorWaitMs = 200;

/// Puts a descriptor in non-blocking mode for as long as it exists, so that
/// a capture read from a pipe is decoded up to what arrived and the lines
/// go out before the program waits for more.
class NonBlocking {
  public:
    explicit NonBlocking(int fd) : fd_(fd), flags_(fcntl(fd, F_GETFL)) {
        if (flags_ >= 0 && (flags_ & O_NONBLOCK) == 0 &&
            fcntl(fd_, F_SETFL, flags_ | O_NONBLOCK) == 0) {
            set_ = true;
        }
    }
    ~NonBlocking() {
        if (set_) {
            fcntl(fd_, F_SETFL, flags_);
        }
    }
    NonBlocking(const NonBlocking&) = delete;
    NonBlocking& operator=(const NonBlocking&) = delete;

  private:
    int fd_;
    int flags_;
    bool set_ = false;
};

/// Registers a stream with the signal handler for as long as it exists.
class Active {
  public:
    explicit Active(Tav::CaptureStream& stream) {
        for (slot_ = 0; slot_ < kMaxActive; ++slot_) {
            Tav::CaptureStream* empty = nullptr;
            if (active[slot_].compare_exchange_strong(empty, &stream)) {
                break;
            }
        }
        if (interrupted.load()) {
            stream.requestStop();
        }
    }
    ~Active() {
        if (slot_ < kMaxActive) {
            active[slot_].store(nullptr);
        }
    }
    Active(const Active&) = delete;
    Active& operator=(const Active&) = delete;

  private:
    int slot_ = 0;
};

// ---- What a file that is no capture holds ---------------------------------------------------

/// "64 61 74 61": `bytes` in hex, separated by blanks.
std::string hexBytes(const std::string& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const unsigned char byte = static_cast<unsigned char>(bytes[i]);
        if (i != 0) {
            text += ' ';
        }
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0x0f];
    }
    return text;
}

/// Whether `bytes` start with the magic of a capture format.
bool isCaptureMagic(const std::string& bytes) {
    static const unsigned char kMagics[][4] = {{0xd4, 0xc3, 0xb2, 0xa1},
                                               {0x4d, 0x3c, 0xb2, 0xa1},
                                               {0xa1, 0xb2, 0xc3, 0xd4},
                                               {0xa1, 0xb2, 0x3c, 0x4d},
                                               {0x0a, 0x0d, 0x0d, 0x0a}};
    for (const auto& magic : kMagics) {
        if (bytes.size() >= 4 && std::memcmp(bytes.data(), magic, 4) == 0) {
            return true;
        }
    }
    return false;
}

/// What a file that is no capture holds: "it starts with 64 61 74 61",
/// "its decompressed content is empty" and the like.
std::string describeContent(const std::string& bytes, bool compressed) {
    const std::string subject = compressed ? "its decompressed content" : "it";
    if (bytes.empty()) {
        return subject + " is empty";
    }
    if (bytes.size() < 4) {
        return subject + (compressed ? " is only " : " holds only ") +
               std::to_string(bytes.size()) + (bytes.size() == 1 ? " byte: " : " bytes: ") +
               hexBytes(bytes);
    }
    return subject + " starts with " + hexBytes(bytes);
}

/// "5000 (1234 datagrams), 53 (2)".
std::string portList(const std::vector<std::pair<std::uint16_t, std::uint64_t>>& ports) {
    std::vector<std::pair<std::uint16_t, std::uint64_t>> sorted = ports;
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const auto& a, const auto& b) { return a.second > b.second; });
    std::string text;
    for (const auto& [port, count] : sorted) {
        if (!text.empty()) {
            text += ", ";
        }
        text += std::to_string(port) + " (" + std::to_string(count) +
                (count == 1 ? " datagram)" : " datagrams)");
    }
    return text;
}

// ---- The library's messages while the dictionaries load ----------------------------------

/// Keeps what the library prints on standard error while the dictionaries
/// load, to pass it on with its last line ended: its messages do not always
/// end their line, and what comes next would be glued to them. Kept in
/// memory (no file is written); without memfd_create it is passed through.
class LoadMessages {
  public:
    LoadMessages() {
        fflush(stderr);
        fd_ = static_cast<int>(syscall(SYS_memfd_create, "binlog-decode", MFD_CLOEXEC));
        if (fd_ < 0) {
            return;
        }
        saved_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
        if (saved_ < 0 || dup2(fd_, STDERR_FILENO) < 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    ~LoadMessages() { finish(); }
    LoadMessages(const LoadMessages&) = delete;
    LoadMessages& operator=(const LoadMessages&) = delete;

    /// Restores standard error and writes there what was printed.
    void finish() {
        if (fd_ < 0) {
            return;
        }
        fflush(stderr);
        dup2(saved_, STDERR_FILENO);
        close(saved_);
        char last = '\n';
        char buffer[4096];
        ssize_t got = 0;
        if (lseek(fd_, 0, SEEK_SET) == 0) {
            while ((got = read(fd_, buffer, sizeof buffer)) > 0) {
                fwrite(buffer, 1, static_cast<std::size_t>(got), stderr);
                last = buffer[got - 1];
            }
        }
        if (last != '\n') {
            fputc('\n', stderr);
        }
        close(fd_);
        fd_ = -1;
    }

  private:
    int fd_ = -1;
    int saved_ = -1;
};

// ---- The run ---------------------------------------------------------------------------------

/// Decodes the captures and keeps the exit status.
class Run {
  public:
    Run(const Tav::BinaryLogXmlReader& reader, const Options& options, const Tav::Filter* filter,
        Output& out, Writer& writer, Diagnostics& diagnostics, Progress& progress,
        std::string& activity, unsigned jobs)
        : reader_(reader),
          options_(options),
          filter_(filter),
          out_(out),
          writer_(writer),
          diagnostics_(diagnostics),
          progress_(progress),
          activity_(activity),
          session_(reader),
          jobs_(jobs) {}

    void decode(const CaptureInput& input) {
        if (done()) {
            return;
        }
        switch (input.kind) {
            case CaptureInput::kNote:
                out_.flush();
                progress_.erase();
                message("%s", input.text.c_str());
                return;
            case CaptureInput::kError:
                out_.flush();
                progress_.erase();
                message("%s", input.text.c_str());
                status_ = kExitFailure;
                return;
            case CaptureInput::kStandardInput:
                activity_ = "decoding standard input";
                decodeDescriptor(STDIN_FILENO, false, "-", 0);
                return;
            case CaptureInput::kCapture:
                activity_ = "decoding '" + input.name + "'";
                decodeFile(input);
                return;
        }
    }

    /// --merge: all captures side by side, records in time order.
    void merge(const std::vector<CaptureInput>& inputs);

    int status() const { return status_; }
    /// --summary and --report: what the run counts (null: nothing).
    void setSummary(wexbl_decode::Summary* summary) { summary_ = summary; }
    bool done() const { return interrupted.load() || limitReached(); }

  private:
    bool limitReached() const { return options_.count != 0 && records_ >= options_.count; }

    /// Reports a capture that is not decoded: "program: 'NAME' ..." or the
    /// like on standard error, and exit status 1.
    __attribute__((format(printf, 2, 3))) void fail(const char* format, ...) {
        out_.flush();
        progress_.erase();
        fprintf(stderr, "%s: ", wexbl_cli::kProgramName);
        va_list args;
        va_start(args, format);
        vfprintf(stderr, format, args);
        va_end(args);
        fputc('\n', stderr);
        status_ = kExitFailure;
    }

    Tav::StreamOptions streamOptions(bool ownSession) {
        Tav::StreamOptions options;
        options.udpPort = static_cast<std::uint16_t>(options_.udpPort < 0 ? 0 : options_.udpPort);
        options.maxVarBinaryBytes = static_cast<std::uint16_t>(options_.maxVarBytes);
        // The summary counts the statistics' gaps and reorders; they are
        // shown only with --stats.
        options.stats = options_.stats || summary_ != nullptr;
        options.utcOffsetMinutes = static_cast<int>(options_.utcOffset);
        // A text tally needs no line, but a filter that compares a value's
        // text (an enumeration name) needs the values' texts.
        options.texts = options_.format != Format::Text || !options_.tally ||
                        (filter_ != nullptr && filter_->usesValues());
        options.values = options_.format != Format::Text;
        options.filter = filter_;
        options.resync = options_.resync;
        options.session = ownSession ? nullptr : &session_;
        options.fastInflate = !options_.zlibOnly;
        return options;
    }

    /// Whether a capture file is decoded by worker threads.
    /// (Not with --count: the statistics at the stop would count the
    /// records read ahead.)
    bool parallel() const { return jobs_ > 1 && !options_.tally && options_.count == 0; }

    void decodeFile(const CaptureInput& input) {
        if (input.statError != 0) {
            notDecoded(input.name, "not opened");
            fail("cannot open '%s': %s", input.name.c_str(), strerror(input.statError));
            return;
        }
        if (input.regular) {
            // Followed, a capture that is truncated or replaced is read
            // again from its start.
            for (;;) {
                struct stat info;
                std::memset(&info, 0, sizeof info);
                const std::uint64_t size = stat(input.name.c_str(), &info) == 0
                                               ? static_cast<std::uint64_t>(info.st_size)
                                               : 0;
                Tav::StreamOptions options = streamOptions(false);
                options.follow = options_.follow;
                const bool workers = parallel() && !options_.follow;
                // Inflating goes on in a thread of its own beside the
                // decoding (a followed file is read as it grows).
                options.inflateThread = !options_.follow;
                if (workers) {
                    // The workers make the texts and values.
                    options.texts = filter_ != nullptr && filter_->usesValues();
                    options.values = false;
                }
                Tav::CaptureStream stream(reader_, input.name, options);
                if (!decodeStream(stream, input.name, size, options_.follow ? &info : nullptr,
                                  workers)) {
                    return;
                }
            }
        }
        // A pipe or a device gives its bytes once: they are decoded as they
        // arrive.
        const int fd = open(input.name.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            fail("cannot open '%s': %s", input.name.c_str(), strerror(errno));
            return;
        }
        decodeDescriptor(fd, true, input.name, 0);
    }

    void decodeDescriptor(int fd, bool own, const std::string& name, std::uint64_t size) {
        // Lines that must go out at once: a pipe is read without blocking,
        // to write what was decoded before waiting for more.
        struct stat info;
        std::unique_ptr<NonBlocking> nonBlocking;
        if (options_.lineBuffered && fstat(fd, &info) == 0 &&
            (S_ISFIFO(info.st_mode) || S_ISSOCK(info.st_mode))) {
            nonBlocking = std::make_unique<NonBlocking>(fd);
        }
        Tav::CaptureStream stream(reader_, name, fd, own, streamOptions(false));
        waitFd_ = fd;
        decodeStream(stream, name, size, nullptr);
        waitFd_ = -1;
    }

    /// Waits for more of a capture that is not there yet: a followed file
    /// is looked at again after a while, a descriptor when it has bytes.
    /// Everything decoded goes out first.
    void waitForMore() {
        if (options_.lineBuffered) {
            out_.flush();
        }
        if (waitFd_ >= 0) {
            struct pollfd wait = {waitFd_, POLLIN, 0};
            poll(&wait, 1, kDescriptorWaitMs);
            return;
        }
        struct timespec pause = {0, kFollowPollNs};
        nanosleep(&pause, nullptr);
    }

    /// A followed capture that is no longer the file that was opened, or
    /// shorter than what was read of it: says so and returns true.
    bool changed(Tav::CaptureStream& stream, const std::string& name, const struct stat& opened) {
        struct stat now;
        if (stat(name.c_str(), &now) != 0) {
            return false;  // gone for now: it may come back
        }
        const char* what = nullptr;
        if (now.st_ino != opened.st_ino || now.st_dev != opened.st_dev) {
            what = "file replaced";
        } else if (static_cast<std::uint64_t>(now.st_size) < stream.inputBytesRead()) {
            what = "file truncated";
        }
        if (what == nullptr) {
            return false;
        }
        out_.flush();
        progress_.erase();
        message("%s: %s", name.c_str(), what);
        return true;
    }

    /// A capture that the summary lists without records.
    void notDecoded(const std::string& name, const char* why) {
        if (summary_ != nullptr) {
            summary_->captureFailed(name, why);
        }
    }

    /// Says why a capture that did not open is not decoded.
    /// `current`: next() already moved to the first event.
    void reportUnopened(Tav::CaptureStream& stream, const std::string& name, bool current = false) {
        notDecoded(name, "not opened");
        while (current || stream.next()) {
            current = false;
            const Tav::Event* event = stream.event();
            if (event == nullptr) {
                continue;
            }
            switch (event->kind) {
                case Tav::EventKind::OpenFailed:
                    fail("cannot open '%s': %s", name.c_str(), std::string(event->name).c_str());
                    break;
                case Tav::EventKind::DataError:
                case Tav::EventKind::ReadError:
                    fail("cannot read '%s': %s", name.c_str(), std::string(event->name).c_str());
                    break;
                case Tav::EventKind::NoGlobalHeader:
                case Tav::EventKind::NotACapture:
                    if (isCaptureMagic(stream.firstBytes())) {
                        fail("'%s' is cut short inside its file header", name.c_str());
                    } else {
                        fail("'%s' is not a pcap file (%s)", name.c_str(),
                             describeContent(stream.firstBytes(), stream.compressed()).c_str());
                    }
                    break;
                case Tav::EventKind::BadLinkType:
                    fail("'%s' has link type %u, which carries no log records", name.c_str(),
                         static_cast<unsigned>(event->length));
                    break;
                default:
                    diagnostics_.report(*event);
                    status_ = kExitFailure;
                    break;
            }
        }
    }

    /// Whether the capture's records travel in UDP datagrams and no port was
    /// chosen: then its ports are counted and listed, and nothing decoded.
    bool needsPort(Tav::CaptureStream& stream, const std::string& name) {
        const std::uint32_t linkType = stream.linkType();
        // A pcapng capture that describes no interface yet has no link type.
        const bool noInterface = stream.format() == Tav::CaptureFormat::PcapNg && linkType == 0;
        if (options_.udpPort >= 0 || linkType == kLinkTypeBinLog || noInterface) {
            return false;
        }
        while (!interrupted.load() && stream.next()) {
        }
        notDecoded(name, "not decoded: no --udp-port");
        const std::string ports = portList(stream.udpPorts());
        const std::string seen = ports.empty() ? " (no UDP datagram in it)"
                                               : " (UDP destination ports seen: " + ports + ")";
        if (linkType == kLinkTypeEthernet) {
            fail(
                "'%s' is Ethernet-framed: choose the UDP port of its log datagrams with "
                "--udp-port%s",
                name.c_str(), seen.c_str());
        } else {
            fail(
                "'%s' carries its logs in UDP datagrams (link type %u): choose their UDP port "
                "with --udp-port%s",
                name.c_str(), static_cast<unsigned>(linkType), seen.c_str());
        }
        return true;
    }

    /// One item of a stream; false once the run should stop.
    bool handle(Tav::CaptureStream& stream, Writer& writer) {
        if (const Tav::Record* record = stream.record()) {
            if (summary_ != nullptr) {
                // decodeStream() started the capture.
                summary_->recordOfCapture(*record);
            }
            if (!options_.summaryOnly) {
                writer.record(*record);
            }
            ++records_;
            progress_.update([&stream] { return stream.inputBytesRead(); }, records_);
            return !limitReached();
        }
        return handleEvent(*stream.event(), writer);
    }

    bool handleEvent(const Tav::Event& event, Writer& writer) {
        if (event.kind == Tav::EventKind::Summary) {
            summarySeen_ = true;
        }
        if (summary_ != nullptr) {
            summary_->event(event);
        }
        if (event.stream == Tav::EventStream::Output) {
            const bool statistics = event.kind == Tav::EventKind::Gap ||
                                    event.kind == Tav::EventKind::Reorder ||
                                    event.kind == Tav::EventKind::Summary;
            if (!options_.summaryOnly && (options_.stats || !statistics)) {
                writer.outputEvent(event);
            }
            return true;
        }
        if (event.kind == Tav::EventKind::UnknownLogId && options_.unknownHex) {
            writer.unknownRecord(event);
        } else if (diagnostics_.report(event)) {
            status_ = kExitFailure;  // a damaged capture
        }
        if (!options_.summaryOnly) {
            writer.errorEvent(event);
        }
        return true;
    }

    /// One item of a capture decoded by workers: a record's rendering, or an
    /// event as handle() takes it.
    bool handleParallel(Tav::CaptureStream& stream, Tav::ParallelStream& workers) {
        bool more;
        if (workers.isRecord()) {
            std::string_view rendered = workers.rendered();
            if (summary_ != nullptr) {
                const wexbl_decode::RecordFacts facts =
                    wexbl_decode::Summary::factsOf(*workers.headers());
                std::string_view tag;
                if (facts.kind == Tav::RecordKind::Syslog) {
                    rendered = wexbl_decode::Summary::takeTag(rendered, tag);
                }
                summary_->record(facts, tag);
            }
            // Written from where the worker left it: it stays there until
            // the run ends. Lines in place come with those that follow them.
            out_.writeInPlace(rendered);
            std::uint64_t count = 1;
            std::uint64_t following = 0;
            const std::string_view lines = workers.moreLines(following);
            if (following != 0) {
                out_.writeInPlace(lines);
                count += following;
            }
            records_ += count;
            progress_.update([&stream] { return stream.inputBytesRead(); }, records_, count);
            more = !limitReached();
        } else {
            more = handleEvent(*workers.event(), writer_);
        }
        if (workers.runEnds()) {
            out_.flush();
        }
        return more;
    }

    /// The closing words about a capture: frames that carried no record.
    void closeCapture(Tav::CaptureStream& stream) {
        const Tav::CaptureStream::SkippedFrames skipped = stream.skippedFrames();
        if (skipped.total() != 0) {
            std::string text = std::to_string(skipped.total()) +
                               (skipped.total() == 1 ? " frame" : " frames") +
                               " carried no log record (";
            std::string parts;
            auto part = [&parts](std::uint64_t count, const std::string& what) {
                if (count != 0) {
                    parts += (parts.empty() ? "" : ", ") + what + ": " + std::to_string(count);
                }
            };
            part(skipped.notIp, "not IP");
            part(skipped.notUdp, "not UDP");
            part(skipped.otherPort, "to other UDP ports");
            part(skipped.tooShort, "cut short");
            part(skipped.otherLinkType, "other link types");
            text += parts + ")";
            if (skipped.otherPort != 0) {
                text += "; UDP destination ports seen: " + portList(stream.udpPorts());
            }
            diagnostics_.say(text);
        }
        diagnostics_.endCapture();
    }

    /// Decodes one capture. `followed`: the file's identity when it was
    /// opened, for a capture that is followed; returns true when it was
    /// truncated or replaced and has to be read again. `inParallel`: the
    /// records are rendered by the worker threads.
    bool decodeStream(Tav::CaptureStream& stream, const std::string& name, std::uint64_t size,
                      const struct stat* followed, bool inParallel = false) {
        Active registered(stream);
        diagnostics_.startCapture(name);
        if (summary_ != nullptr) {
            summary_->startCapture(name);
        }
        progress_.startCapture(name, size);
        // A followed capture or a pipe may not have its header yet: next()
        // then waits for it, else it hands out why the capture did not open.
        while (!stream.open()) {
            if (done() || stream.next() || !stream.waiting()) {
                reportUnopened(stream, name, stream.event() != nullptr);
                return false;
            }
            if (followed != nullptr && changed(stream, name, *followed)) {
                return !done();
            }
            waitForMore();
        }
        if (needsPort(stream, name)) {
            return false;
        }
        summarySeen_ = false;
        if (inParallel) {
            const Writer& writer = writer_;
            // The summary takes what it needs of a record from its headers
            // (handleParallel), but for a syslog record's tag.
            const bool tags = summary_ != nullptr;
            const bool lines = !options_.summaryOnly;
            Tav::ParallelStream::Render render;
            // A plain text line is its record's line: the workers write it
            // where it is printed from.
            if (tags || !lines || !writer.rendersLineAsIs()) {
                render = [&writer, tags, lines](const Tav::Record& record, std::string& out) {
                    if (lines) {
                        writer.render(record, out);
                    }
                    if (tags && record.kind == Tav::RecordKind::Syslog) {
                        wexbl_decode::Summary::appendTag(record, out);
                    }
                };
            }
            // N threads decode: this one, the inflating one (both render
            // batches while they wait) and N - 2 workers.
            Tav::ParallelStream workers(stream, jobs_ - 2, std::move(render));
            // The renderings are written from the workers' batches: what
            // waits goes out before the batches go, whatever ends the loop.
            struct FlushFirst {
                Output& out;
                ~FlushFirst() { out.flush(); }
            } flushFirst{out_};
            while (workers.next()) {
                if (!handleParallel(stream, workers)) {
                    stream.requestStop();
                }
            }
        }
        while (!inParallel) {
            while (stream.next()) {
                if (!handle(stream, writer_)) {
                    stream.requestStop();
                }
            }
            if (!stream.waiting() || done()) {
                break;
            }
            if (followed != nullptr && changed(stream, name, *followed)) {
                diagnostics_.endCapture();
                return true;
            }
            waitForMore();
        }
        // (A read that a signal interrupts ends the capture, summary
        // included.)
        if (done() && !summarySeen_ && options_.stats && !options_.summaryOnly) {
            // The statistics of what was read before the signal or the
            // last record asked for.
            const std::string statistics = stream.statisticsSoFar();
            out_.write(statistics);
        }
        closeCapture(stream);
        return false;
    }

    const Tav::BinaryLogXmlReader& reader_;
    const Options& options_;
    const Tav::Filter* filter_;
    Output& out_;
    Writer& writer_;
    Diagnostics& diagnostics_;
    Progress& progress_;
    std::string& activity_;
    wexbl_decode::Summary* summary_ = nullptr;
    Tav::StreamSession session_;
    /// Decoding threads for a capture file (1: the run's own thread alone).
    unsigned jobs_;
    int status_ = kExitOk;
    std::uint64_t records_ = 0;
    /// Whether the capture being decoded gave its statistics summary.
    bool summarySeen_ = false;
    /// The descriptor a capture is read from, while one is (-1: a file).
    int waitFd_ = -1;
};

void Run::merge(const std::vector<CaptureInput>& inputs) {
    // Each capture: its stream (statistics of its own), and the output of
    // its next record (with the events before it) held until its turn.
    struct Source {
        std::string name;
        std::unique_ptr<Tav::CaptureStream> stream;
        std::unique_ptr<Active> registered;
        std::string held;
        std::unique_ptr<Output> collect;
        std::unique_ptr<Writer> writer;
        bool hasRecord = false;
        std::uint32_t seconds = 0;
        std::uint32_t microseconds = 0;
        std::uint64_t number = 0;
        bool open = false;
        bool ended = false;
    };
    std::vector<Source> sources;
    for (const CaptureInput& input : inputs) {
        if (input.kind != CaptureInput::kCapture) {
            decode(input);  // notes and errors about the operands
            continue;
        }
        if (input.statError != 0) {
            notDecoded(input.name, "not opened");
            fail("cannot open '%s': %s", input.name.c_str(), strerror(input.statError));
            continue;
        }
        Source source;
        source.name = input.name;
        if (input.regular) {
            source.stream =
                std::make_unique<Tav::CaptureStream>(reader_, input.name, streamOptions(true));
        } else {
            const int fd = open(input.name.c_str(), O_RDONLY | O_CLOEXEC);
            if (fd < 0) {
                fail("cannot open '%s': %s", input.name.c_str(), strerror(errno));
                continue;
            }
            source.stream = std::make_unique<Tav::CaptureStream>(reader_, input.name, fd, true,
                                                                 streamOptions(true));
        }
        source.registered = std::make_unique<Active>(*source.stream);
        diagnostics_.startCapture(input.name);
        if (!source.stream->open()) {
            reportUnopened(*source.stream, input.name);
            continue;
        }
        if (needsPort(*source.stream, input.name)) {
            continue;
        }
        source.open = true;
        sources.push_back(std::move(source));
    }
    for (Source& source : sources) {
        source.collect = std::make_unique<Output>(&source.held);
        source.writer = std::make_unique<Writer>(*source.collect, options_, false);
    }
    // Reads a capture up to its next record, collecting the output of the
    // events on the way and of the record; at the end of the capture the
    // output left (its summary) goes out at once.
    auto advance = [&](Source& source) {
        source.hasRecord = false;
        diagnostics_.startCapture(source.name);
        while (source.stream->next()) {
            if (const Tav::Record* record = source.stream->record()) {
                if (summary_ != nullptr) {
                    summary_->record(*record);
                }
                if (!options_.summaryOnly) {
                    source.writer->record(*record);
                }
                source.seconds = record->pcapHeader.tsSec;
                source.microseconds = record->pcapHeader.tsUsec;
                source.number = record->number;
                source.hasRecord = true;
                return;
            }
            handle(*source.stream, *source.writer);
        }
        out_.write(source.held);
        source.held.clear();
        closeCapture(*source.stream);
        source.ended = true;
    };
    for (Source& source : sources) {
        advance(source);
    }
    for (;;) {
        // The earliest record; ties go to the capture given first, then to
        // the record read first.
        Source* next = nullptr;
        for (Source& source : sources) {
            if (source.hasRecord &&
                (next == nullptr || source.seconds < next->seconds ||
                 (source.seconds == next->seconds && source.microseconds < next->microseconds))) {
                next = &source;
            }
        }
        if (next == nullptr || done()) {
            break;
        }
        out_.write(next->held);
        next->held.clear();
        ++records_;
        if (limitReached()) {
            break;
        }
        advance(*next);
    }
    // Stopped early: the statistics of what each capture still open read.
    for (Source& source : sources) {
        if (!source.ended) {
            diagnostics_.startCapture(source.name);
            if (options_.stats && !options_.summaryOnly) {
                out_.write(source.stream->statisticsSoFar());
            }
            closeCapture(*source.stream);
        }
    }
}

int run(int argc, char** argv, std::string& activity) {
    Options options;
    const int parsed = wexbl_decode::parseCommandLine(argc, argv, options);
    if (parsed >= 0) {
        return parsed;
    }

    // The filter is checked before anything is read.
    std::unique_ptr<Tav::Filter> filter;
    if (!options.filters.empty() || !options.windows.empty()) {
        std::string composite;
        // Shows what the user wrote (for --since and --until the time, not
        // the "time >= " put in front of it) with a caret under the error.
        auto check = [&](const std::string& expression, const char* what, std::size_t skip) {
            std::string error;
            std::size_t position = 0;
            if (!Tav::Filter::compile(expression, error, position)) {
                message("invalid %s: %s", what, error.c_str());
                const std::string shown = expression.substr(skip);
                position = position < skip ? 0 : position - skip;
                fprintf(stderr, "  %s\n  %s^\n", shown.c_str(),
                        std::string(std::min(position, shown.size()), ' ').c_str());
                return false;
            }
            composite += (composite.empty() ? "(" : " && (") + expression + ")";
            return true;
        };
        for (const std::string& expression : options.filters) {
            if (!check(expression, "filter expression", 0)) {
                return kExitUsage;
            }
        }
        for (const std::string& window : options.windows) {
            const bool since = window.compare(0, 7, "time >=") == 0;
            if (!check(window, since ? "--since time" : "--until time",
                       since ? std::strlen("time >= ") : std::strlen("time < "))) {
                return kExitUsage;
            }
        }
        std::string error;
        std::size_t position = 0;
        filter = Tav::Filter::compile(composite, error, position);
        if (!filter) {
            message("invalid filter: %s", error.c_str());
            return kExitUsage;
        }
    }

    activity = "listing the captures";
    const std::vector<CaptureInput> inputs = wexbl_decode::expandOperands(options.captures);
    if (options.follow && !(inputs.size() == 1 && inputs[0].kind == CaptureInput::kCapture &&
                            (inputs[0].regular || inputs[0].statError != 0))) {
        message("--follow follows one capture file: '%s' is none", options.captures[0].c_str());
        return kExitUsage;
    }
    if (options.writePath != nullptr) {
        struct stat written;
        struct stat output;
        const bool toStdoutHere =
            options.outputPath == nullptr || strcmp(options.outputPath, "-") == 0;
        if (stat(options.writePath, &written) == 0 &&
            ((toStdoutHere && fstat(STDOUT_FILENO, &output) == 0) ||
             (!toStdoutHere && stat(options.outputPath, &output) == 0)) &&
            written.st_dev == output.st_dev && written.st_ino == output.st_ino &&
            S_ISREG(written.st_mode)) {
            message("the capture '%s' of -w is the output: refusing to write both into it",
                    options.writePath);
            return kExitUsage;
        }
    }
    const bool toStdout = options.outputPath == nullptr || strcmp(options.outputPath, "-") == 0;
    // Opening the output truncates it, and writing a capture while it is
    // read garbles it: never when the output is one of the captures.
    if (toStdout) {
        if (const CaptureInput* same = wexbl_decode::findSameFile(inputs, STDOUT_FILENO, "")) {
            message("standard output is the capture '%s': refusing to write into it",
                    same->name.c_str());
            return kExitUsage;
        }
    } else if (const CaptureInput* same =
                   wexbl_decode::findSameFile(inputs, -1, options.outputPath)) {
        message("the output '%s' is the capture '%s': refusing to overwrite it", options.outputPath,
                same->name.c_str());
        return kExitUsage;
    }
    if (options.reportPath != nullptr) {
        if (const CaptureInput* same = wexbl_decode::findSameFile(inputs, -1, options.reportPath)) {
            message("the report '%s' is the capture '%s': refusing to overwrite it",
                    options.reportPath, same->name.c_str());
            return kExitUsage;
        }
    }

    // The library takes the directory as a literal path prefix.
    std::string dictionary = options.dictionary;
    if (!dictionary.empty() && dictionary.back() != '/') {
        dictionary += '/';
    }
    activity = std::string("loading the dictionaries in '") + options.dictionary + "'";
    LoadMessages loadMessages;
    Tav::BinaryLogXmlReader reader(
        dictionary, options.stats,
        static_cast<unsigned short>(options.udpPort < 0 ? 0 : options.udpPort),
        static_cast<unsigned short>(options.maxVarBytes));
    loadMessages.finish();
    if (!reader.isGood()) {
        message("cannot load the dictionaries in '%s'", options.dictionary);
        return kExitFailure;
    }
    if (options.lint) {
        warnAboutDictionary(options.dictionary);
    }

    std::unique_ptr<FILE, int (*)(FILE*)> outputFile(nullptr, fclose);
    FILE* out = stdout;
    if (!toStdout) {
        outputFile.reset(fopen(options.outputPath, "w"));
        if (!outputFile) {
            message("cannot write '%s': %s", options.outputPath, strerror(errno));
            return kExitFailure;
        }
        out = outputFile.get();
    }

    // Lines go out as they are decoded to a terminal or a pipe, where
    // someone (or a program) is waiting for them.
    struct stat outInfo;
    if (isatty(fileno(out)) || (fstat(fileno(out), &outInfo) == 0 &&
                                (S_ISFIFO(outInfo.st_mode) || S_ISSOCK(outInfo.st_mode)))) {
        options.lineBuffered = true;
    }
    const bool colour =
        options.format == Format::Text &&
        (options.color == When::Always ||
         (options.color == When::Auto && isatty(fileno(out)) && getenv("NO_COLOR") == nullptr));
    const bool progressShown = options.progress == When::Always ||
                               (options.progress == When::Auto && isatty(STDERR_FILENO));
    Output output(out);
    Progress progress(progressShown);
    Diagnostics diagnostics(output, progress, options.verbose, options.resync);
    Writer writer(output, options, colour);
    // The default: a decoding thread for each CPU (the main thread and the
    // inflating one count, as both render batches while they wait). One for
    // a terminal: a person reading along wants the first lines at once, not
    // a batch.
    unsigned jobs = options.jobs;
    if (jobs == 0) {
        const long online = sysconf(_SC_NPROCESSORS_ONLN);
        jobs =
            isatty(fileno(out)) || online < 1 ? 1 : static_cast<unsigned>(std::min(online, 256L));
    }
    Run decoder(reader, options, filter.get(), output, writer, diagnostics, progress, activity,
                jobs);
    std::unique_ptr<wexbl_decode::Summary> summary;
    if (options.summary || options.reportPath != nullptr) {
        summary = std::make_unique<wexbl_decode::Summary>(reader, options.utcOffset);
        if (options.merge) {
            summary->separateStatistics();
        }
        decoder.setSummary(summary.get());
    }
    installSignalHandlers();

    if (!options.summaryOnly) {
        writer.start();
    }
    int listenStatus = kExitOk;
    if (options.listen) {
        installSummarySignal();
        activity = "listening";
        listenStatus = wexbl_decode::listen(reader, options, filter.get(), output, writer,
                                            diagnostics, {interrupted, summaryAsked});
    } else if (options.merge) {
        decoder.merge(inputs);
    } else {
        for (const CaptureInput& input : inputs) {
            decoder.decode(input);
        }
    }
    if (!options.summaryOnly) {
        writer.finish();
    }
    progress.erase();
    if (summary && options.summary) {
        // A CSV file holds records only: with records the table goes to
        // standard error, as the statistics do.
        const std::string table = summary->table(options.format);
        if (options.format == Format::Csv && !options.summaryOnly) {
            output.flush();
            fwrite(table.data(), 1, table.size(), stderr);
        } else {
            output.write(table);
        }
    }
    if (summary && options.reportPath != nullptr) {
        activity = std::string("writing the report '") + options.reportPath + "'";
        if (!wexbl_decode::writeReport(options.reportPath, *summary, reader, options)) {
            message("cannot write the report '%s': %s", options.reportPath, strerror(errno));
            return kExitFailure;
        }
    }

    activity = "writing the output";
    output.flush();
    if (!output.good() || fflush(out) != 0 || ferror(out)) {
        message("error writing the output: %s", strerror(errno));
        return kExitFailure;
    }
    if (outputFile && fclose(outputFile.release()) != 0) {
        message("error closing '%s': %s", options.outputPath, strerror(errno));
        return kExitFailure;
    }
    if (options.listen) {
        return listenStatus;
    }
    // Following ends on a signal only: that is its normal end.
    if (interrupted.load() && !options.follow) {
        return kExitInterrupted;
    }
    return decoder.status();
}

}  // namespace

int main(int argc, char** argv) {
    // What the program is doing, for the message when it has to stop.
    std::string activity = "starting";
    try {
        return run(argc, argv, activity);
    } catch (const std::bad_alloc&) {
        // A pathological dictionary can make one record's text larger than
        // memory.
        message("out of memory while %s; stopping", activity.c_str());
    } catch (const std::length_error&) {
        message("a text grew longer than a string can hold while %s; stopping", activity.c_str());
    } catch (const std::exception& error) {
        message("unexpected error while %s: %s; stopping", activity.c_str(), error.what());
    }
    return kExitFailure;
}
