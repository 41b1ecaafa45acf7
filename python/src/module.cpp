// The wexbinlog extension module: dictionaries, captures read as Python
// dicts (the JSON Lines layout of Format.h), and the per-module summary of a
// capture that fleet decoding gathers.
//
// Records are decoded in batches with the GIL released: the capture stream
// writes each batch onto a tape of typed values (Tape.h), and only turning
// the tape into Python objects holds the GIL.
#include <pybind11/pybind11.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "BinaryLogXmlReader.h"
#include "Lint.h"
#include "Tape.h"
#include "WexOamBinLogXmlReader/CaptureStream.h"
#include "WexOamBinLogXmlReader/Filter.h"
#include "WexOamBinLogXmlReader/Format.h"
#include "WexOamBinLogXmlReader/ParallelStream.h"

namespace py = pybind11;

namespace wexbl_python {

namespace {

constexpr std::uint32_t kLinkTypeEthernet = 1;
constexpr std::uint32_t kLinkTypeBinLog = 150;

// ---- Loading a dictionary ----------------------------------------------------------------

/// Keeps what the library prints on standard error while a dictionary loads,
/// so that a failed load can say it in its exception (kept in memory; without
/// memfd_create the messages go to standard error as they are).
class CapturedStderr {
  public:
    CapturedStderr() {
        fflush(stderr);
        fd_ = static_cast<int>(syscall(SYS_memfd_create, "wexbinlog", MFD_CLOEXEC));
        if (fd_ < 0) {
            return;
        }
        saved_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
        if (saved_ < 0 || dup2(fd_, STDERR_FILENO) < 0) {
            if (saved_ >= 0) {
                close(saved_);
            }
            close(fd_);
            fd_ = -1;
        }
    }
    ~CapturedStderr() { finish(); }
    CapturedStderr(const CapturedStderr&) = delete;
    CapturedStderr& operator=(const CapturedStderr&) = delete;

    /// Restores standard error; returns what was printed.
    std::string finish() {
        std::string text;
        if (fd_ < 0) {
            return text;
        }
        fflush(stderr);
        dup2(saved_, STDERR_FILENO);
        close(saved_);
        char buffer[4096];
        ssize_t got = 0;
        if (lseek(fd_, 0, SEEK_SET) == 0) {
            // Bounded: a dictionary that prints without end is cut short.
            while (text.size() < (1u << 20) && (got = read(fd_, buffer, sizeof buffer)) > 0) {
                text.append(buffer, static_cast<std::size_t>(got));
            }
        }
        close(fd_);
        fd_ = -1;
        return text;
    }

  private:
    int fd_ = -1;
    int saved_ = -1;
};

/// A loaded dictionary directory, shared by the Dictionary object and every
/// capture being read with it.
struct Loaded {
    std::string path;
    std::unique_ptr<Tav::BinaryLogXmlReader> reader;
};

std::shared_ptr<Loaded> loadDictionary(const std::string& path) {
    auto loaded = std::make_shared<Loaded>();
    loaded->path = path;
    // The library takes the directory as a literal path prefix.
    std::string prefix = path;
    if (!prefix.empty() && prefix.back() != '/') {
        prefix += '/';
    }
    std::string messages;
    {
        CapturedStderr captured;
        loaded->reader = std::make_unique<Tav::BinaryLogXmlReader>(prefix, false, 0, 65535);
        messages = captured.finish();
    }
    if (!loaded->reader->isGood()) {
        std::string text = "cannot load the dictionaries in '" + path + "'";
        while (!messages.empty() && (messages.back() == '\n' || messages.back() == ' ')) {
            messages.pop_back();
        }
        if (!messages.empty()) {
            text += ": " + messages;
        }
        throw py::value_error(text);
    }
    if (!messages.empty()) {
        // Warnings of a load that succeeded go where the library prints them.
        fwrite(messages.data(), 1, messages.size(), stderr);
        if (messages.back() != '\n') {
            fputc('\n', stderr);
        }
    }
    return loaded;
}

// ---- Python objects from the tape --------------------------------------------------------

/// Length of the well-formed UTF-8 sequence at `p` (2 to 4), or 0 when the
/// byte there does not start one (as the JSON output decides).
std::size_t utf8Sequence(const unsigned char* p, const unsigned char* end) {
    const unsigned char lead = p[0];
    const auto left = static_cast<std::size_t>(end - p);
    auto continuation = [](unsigned char c) { return (c & 0xC0u) == 0x80u; };
    if (lead >= 0xC2 && lead <= 0xDF) {
        return left >= 2 && continuation(p[1]) ? 2 : 0;
    }
    if (lead >= 0xE0 && lead <= 0xEF) {
        if (left < 3 || !continuation(p[2])) {
            return 0;
        }
        const unsigned char low = lead == 0xE0 ? 0xA0 : 0x80;
        const unsigned char high = lead == 0xED ? 0x9F : 0xBF;
        return p[1] >= low && p[1] <= high ? 3 : 0;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        if (left < 4 || !continuation(p[2]) || !continuation(p[3])) {
            return 0;
        }
        const unsigned char low = lead == 0xF0 ? 0x90 : 0x80;
        const unsigned char high = lead == 0xF4 ? 0x8F : 0xBF;
        return p[1] >= low && p[1] <= high ? 4 : 0;
    }
    return 0;
}

/// Bytes as a str: well-formed UTF-8 as it is, every other byte as the
/// character of its value (U+0080 to U+00FF), as the JSON output writes them.
PyObject* textObject(const char* data, std::size_t size) {
    PyObject* text = PyUnicode_DecodeUTF8(data, static_cast<Py_ssize_t>(size), "strict");
    if (text != nullptr || !PyErr_ExceptionMatches(PyExc_UnicodeDecodeError)) {
        return text;
    }
    PyErr_Clear();
    std::string fixed;
    fixed.reserve(size * 2);
    const auto* p = reinterpret_cast<const unsigned char*>(data);
    const unsigned char* const end = p + size;
    while (p < end) {
        if (*p < 0x80) {
            fixed += static_cast<char>(*p++);
            continue;
        }
        const std::size_t length = utf8Sequence(p, end);
        if (length != 0) {
            fixed.append(reinterpret_cast<const char*>(p), length);
            p += length;
        } else {
            fixed += static_cast<char>(0xC0 | (*p >> 6));
            fixed += static_cast<char>(0x80 | (*p & 0x3F));
            ++p;
        }
    }
    return PyUnicode_DecodeUTF8(fixed.data(), static_cast<Py_ssize_t>(fixed.size()), "strict");
}

/// Turns tapes into Python objects; holds the keys and the names that repeat.
class Builder {
  public:
    Builder() {
        for (int i = 0; i < kKeyCount; ++i) {
            keys_[i] = py::reinterpret_steal<py::object>(PyUnicode_InternFromString(kKeyNames[i]));
            if (!keys_[i]) {
                throw py::error_already_set();
            }
        }
    }

    /// Appends the objects of `tape` to `out`.
    void build(const std::string& tape, py::list& out) {
        // The new objects hold no cycles: the collector is not run over
        // them while they are made (it runs as usual afterwards).
        const int wasEnabled = PyGC_Disable();
        struct Restore {
            int enabled;
            ~Restore() {
                if (enabled) {
                    PyGC_Enable();
                }
            }
        } restore{wasEnabled};
        const char* p = tape.data();
        const char* const end = p + tape.size();
        while (p < end) {
            PyObject* item = value(p);
            if (item == nullptr) {
                throw py::error_already_set();
            }
            const int failed = PyList_Append(out.ptr(), item);
            Py_DECREF(item);
            if (failed != 0) {
                throw py::error_already_set();
            }
        }
    }

  private:
    static std::uint32_t length(const char*& p) {
        std::uint32_t n = 0;
        std::memcpy(&n, p, 4);
        p += 4;
        return n;
    }

    PyObject* cachedText(const char* data, std::size_t size) {
        const std::string_view key(data, size);
        auto found = cache_.find(key);
        if (found != cache_.end()) {
            Py_INCREF(found->second.ptr());
            return found->second.ptr();
        }
        // A dictionary has a bounded number of names; the capture's names
        // are few. The cap only guards against the unforeseen.
        if (cache_.size() > 100000) {
            cache_.clear();
            names_.clear();
        }
        PyObject* object = textObject(data, size);
        if (object != nullptr) {
            names_.emplace_back(data, size);
            cache_.emplace(names_.back(), py::reinterpret_borrow<py::object>(object));
        }
        return object;
    }

    /// The object at `p` (a new reference, or null with an exception set).
    PyObject* value(const char*& p) {
        const char code = *p++;
        switch (code) {
            case kDictBegin: {
                // A record or event (at the top) gets room for its keys at
                // once; a value's dict has a few keys.
                PyObject* dict = depth_ == 0 ? _PyDict_NewPresized(16) : PyDict_New();
                if (dict == nullptr) {
                    return nullptr;
                }
                ++depth_;
                while (*p != kEnd) {
                    // kKeyOp, then the key's number.
                    const auto k = static_cast<unsigned char>(p[1]);
                    p += 2;
                    PyObject* item = value(p);
                    if (item == nullptr || PyDict_SetItem(dict, keys_[k].ptr(), item) != 0) {
                        Py_XDECREF(item);
                        Py_DECREF(dict);
                        --depth_;
                        return nullptr;
                    }
                    Py_DECREF(item);
                }
                --depth_;
                ++p;
                return dict;
            }
            case kListBegin: {
                PyObject* list = PyList_New(0);
                if (list == nullptr) {
                    return nullptr;
                }
                while (*p != kEnd) {
                    PyObject* item = value(p);
                    if (item == nullptr || PyList_Append(list, item) != 0) {
                        Py_XDECREF(item);
                        Py_DECREF(list);
                        return nullptr;
                    }
                    Py_DECREF(item);
                }
                ++p;
                return list;
            }
            case kString: {
                const std::uint32_t n = length(p);
                PyObject* text = textObject(p, n);
                p += n;
                return text;
            }
            case kCached: {
                const std::uint32_t n = length(p);
                PyObject* text = cachedText(p, n);
                p += n;
                return text;
            }
            case kUnsigned: {
                std::uint64_t v = 0;
                std::memcpy(&v, p, 8);
                p += 8;
                return PyLong_FromUnsignedLongLong(v);
            }
            case kSigned: {
                std::int64_t v = 0;
                std::memcpy(&v, p, 8);
                p += 8;
                return PyLong_FromLongLong(v);
            }
            case kDouble: {
                double v = 0;
                std::memcpy(&v, p, 8);
                p += 8;
                // The JSON output writes null for what JSON cannot hold.
                if (!std::isfinite(v)) {
                    Py_RETURN_NONE;
                }
                return PyFloat_FromDouble(v);
            }
            case kTrue:
                Py_RETURN_TRUE;
            case kFalse:
                Py_RETURN_FALSE;
            default:
                Py_RETURN_NONE;
        }
    }

    py::object keys_[kKeyCount];
    /// How deep in dicts the value being made is.
    int depth_ = 0;
    /// Name -> its str; the keys view the strings of names_.
    std::unordered_map<std::string_view, py::object> cache_;
    std::deque<std::string> names_;
};

// ---- Opening a capture as binlog-decode does ---------------------------------------------

/// What a stream that did not open says, as an exception.
[[noreturn]] void raiseUnopened(Tav::CaptureStream& stream, const std::string& name) {
    std::string message;
    bool os = false;
    for (bool current = stream.event() != nullptr; current || stream.next(); current = false) {
        const Tav::Event* event = stream.event();
        if (event == nullptr || event->kind == Tav::EventKind::Note) {
            continue;
        }
        if (event->kind == Tav::EventKind::OpenFailed) {
            message = "cannot open '" + name + "': " + std::string(event->name);
            os = true;
        } else if (event->kind == Tav::EventKind::DataError ||
                   event->kind == Tav::EventKind::ReadError) {
            message = "cannot read '" + name + "': " + std::string(event->name);
            os = true;
        } else {
            std::string_view text = event->text;
            while (!text.empty() && text.back() == '\n') {
                text.remove_suffix(1);
            }
            message = "'" + name + "': " + std::string(text);
        }
        break;
    }
    if (message.empty()) {
        message = "'" + name + "' cannot be read";
    }
    if (os) {
        PyErr_SetString(PyExc_OSError, message.c_str());
        throw py::error_already_set();
    }
    throw py::value_error(message);
}

/// Opens the stream; raises what binlog-decode reports about a capture it
/// does not decode (not opened, or UDP-framed without a port chosen).
void openOrRaise(Tav::CaptureStream& stream, const std::string& name, std::uint16_t udpPort) {
    bool opened = false;
    {
        py::gil_scoped_release unlocked;
        opened = stream.open();
    }
    if (!opened) {
        raiseUnopened(stream, name);
    }
    const std::uint32_t linkType = stream.linkType();
    const bool noInterface = stream.format() == Tav::CaptureFormat::PcapNg && linkType == 0;
    if (udpPort != 0 || linkType == kLinkTypeBinLog || noInterface) {
        return;
    }
    if (linkType == kLinkTypeEthernet) {
        throw py::value_error("'" + name +
                              "' is Ethernet-framed: choose the UDP port of its log datagrams "
                              "with udp_port");
    }
    throw py::value_error("'" + name + "' carries its logs in UDP datagrams (link type " +
                          std::to_string(linkType) + "): choose their UDP port with udp_port");
}

std::unique_ptr<Tav::Filter> compileFilter(const py::object& expression) {
    if (expression.is_none()) {
        return nullptr;
    }
    const std::string text = expression.cast<std::string>();
    std::string error;
    std::size_t position = 0;
    std::unique_ptr<Tav::Filter> filter = Tav::Filter::compile(text, error, position);
    if (!filter) {
        throw py::value_error("invalid filter expression: " + error + " (at offset " +
                              std::to_string(position) + ")");
    }
    return filter;
}

std::uint16_t checkedPort(int port) {
    if (port < 0 || port > 65535) {
        throw py::value_error("udp_port must be 0 to 65535");
    }
    return static_cast<std::uint16_t>(port);
}

// ---- Reading: an iterator of dicts -------------------------------------------------------

class Reader {
  public:
    Reader(std::shared_ptr<Loaded> loaded, const std::string& capture, int udpPort, int utcOffset,
           bool stats, const py::object& filter, int maxVarBytes)
        : loaded_(std::move(loaded)), name_(capture), filter_(compileFilter(filter)) {
        if (maxVarBytes < 0 || maxVarBytes > 65535) {
            throw py::value_error("max_var_bytes must be 0 to 65535");
        }
        Tav::StreamOptions options;
        options.udpPort = checkedPort(udpPort);
        options.maxVarBinaryBytes = static_cast<std::uint16_t>(maxVarBytes);
        options.stats = stats;
        options.utcOffsetMinutes = utcOffset;
        options.filter = filter_.get();
        // Inflating runs in a thread of its own, decoding in a worker
        // thread (which makes the texts and values), while this thread turns
        // the decoded records into Python objects.
        options.inflateThread = true;
        options.texts = filter_ != nullptr && filter_->usesValues();
        options.values = false;
        stream_ = std::make_unique<Tav::CaptureStream>(*loaded_->reader, capture, options);
        openOrRaise(*stream_, name_, options.udpPort);
        workers_ = std::make_unique<Tav::ParallelStream>(
            *stream_, 1,
            [](const Tav::Record& record, std::string& out) { TapeWriter(out).record(record); });
    }

    py::object next() {
        if (busy_) {
            throw py::value_error("this capture is being read by another thread");
        }
        while (index_ >= pending_.size()) {
            if (ended_) {
                throw py::stop_iteration();
            }
            busy_ = true;
            try {
                fill();
            } catch (...) {
                busy_ = false;
                throw;
            }
            busy_ = false;
        }
        return pending_[index_++];
    }

  private:
    /// Decodes the next batch.
    void fill() {
        tape_.clear();
        {
            py::gil_scoped_release unlocked;
            TapeWriter writer(tape_);
            for (unsigned items = 0; items < kBatchItems && tape_.size() < kBatchBytes; ++items) {
                if (!workers_->next()) {
                    ended_ = true;
                    break;
                }
                if (workers_->isRecord()) {
                    const std::string_view rendered = workers_->rendered();
                    tape_.append(rendered.data(), rendered.size());
                } else {
                    writer.event(*workers_->event());
                }
            }
            if (ended_) {
                // The worker threads stop as soon as the capture is read.
                workers_.reset();
            }
        }
        py::list batch;
        builder_.build(tape_, batch);
        pending_ = std::move(batch);
        index_ = 0;
    }

    static constexpr unsigned kBatchItems = 1024;
    static constexpr std::size_t kBatchBytes = 1u << 20;

    std::shared_ptr<Loaded> loaded_;
    std::string name_;
    std::unique_ptr<Tav::Filter> filter_;
    std::unique_ptr<Tav::CaptureStream> stream_;
    std::unique_ptr<Tav::ParallelStream> workers_;
    std::string tape_;
    Builder builder_;
    py::list pending_;
    std::size_t index_ = 0;
    bool ended_ = false;
    bool busy_ = false;
};

// ---- The summary of a capture ------------------------------------------------------------

struct ModuleCounts {
    std::uint32_t key = 0;
    std::uint64_t records = 0;
    std::int64_t missing = 0;
    std::uint64_t reorders = 0;
    std::uint64_t unknownIds = 0;
    std::uint64_t firstUs = 0;
    std::uint64_t lastUs = 0;
    bool timed = false;

    void count(const Tav::PcapRecHeader& header) {
        ++records;
        const std::uint64_t us = std::uint64_t{header.tsSec} * 1000000u + header.tsUsec;
        if (!timed || us < firstUs) {
            firstUs = us;
        }
        if (!timed || us > lastUs) {
            lastUs = us;
        }
        timed = true;
    }
};

/// Row keys of the records counted by kind, not module (as binlog-decode
/// --summary names them).
constexpr std::uint32_t kSyslogRow = 0x10000 + 2;
constexpr std::uint32_t kCaptureRow = 0x10000 + 3;

/// The rows of one capture's summary, in the order they were first needed,
/// and the gaps and reorders that wait for the record that revealed them:
/// they are that record's row's, as in binlog-decode --summary.
class CaptureSummary {
  public:
    ModuleCounts& row(std::uint32_t key) { return rows_[index(key)]; }

    /// A record counted in row `key`, or reported instead of printed.
    void record(std::uint32_t key, std::uint64_t number, const Tav::PcapRecHeader& header) {
        const std::size_t at = index(key);
        settle(number, at);
        rows_[at].count(header);
    }
    void gapOrReorder(const Tav::Event& event) { pending_.push_back(event); }
    /// Settles what waits: with the record `number` in row `at`, or in
    /// their modules' rows (`at` out of range).
    void settle(std::uint64_t number, std::size_t at) {
        for (const Tav::Event& one : pending_) {
            const std::size_t target =
                at < rows_.size() && one.record == number ? at : index(one.module);
            if (one.kind == Tav::EventKind::Gap) {
                rows_[target].missing += one.missing;
                missing_ += one.missing;
                continue;
            }
            ++rows_[target].reorders;
            // A late record was one of those counted missing: off its own
            // row's count, or off the row with the most missing.
            if (missing_ > 0) {
                --missing_;
                std::size_t from = target;
                if (rows_[from].missing <= 0) {
                    from = 0;
                    for (std::size_t i = 1; i < rows_.size(); ++i) {
                        if (rows_[i].missing > rows_[from].missing) {
                            from = i;
                        }
                    }
                }
                --rows_[from].missing;
            }
        }
        pending_.clear();
    }
    void settleAll() { settle(0, rows_.size()); }
    const std::vector<ModuleCounts>& rows() const { return rows_; }

  private:
    std::size_t index(std::uint32_t key) {
        const auto found = index_.find(key);
        if (found != index_.end()) {
            return found->second;
        }
        rows_.emplace_back();
        rows_.back().key = key;
        index_.emplace(key, rows_.size() - 1);
        return rows_.size() - 1;
    }

    std::vector<ModuleCounts> rows_;
    std::map<std::uint32_t, std::size_t> index_;
    std::vector<Tav::Event> pending_;
    std::int64_t missing_ = 0;
};

/// Per module (the high half of the log id; syslog records and plain
/// capture records in rows of their own): the records the statistics count
/// (those printed and those reported as unknown, of another version, of a
/// level out of range or of an unknown packet type), the records missing by
/// their sequence numbers, the reorders and unknown log ids, and the first
/// and last record times. A gap or reorder is the row's of the record that
/// revealed it; a reorder takes one record off the missing count of that
/// row (or of the row with the most) while the capture's count is above
/// zero, as the statistics do.
py::dict summarize(const Loaded& loaded, const std::string& capture, int udpPort) {
    Tav::StreamOptions options;
    options.udpPort = checkedPort(udpPort);
    options.stats = true;
    options.texts = false;
    options.values = false;
    options.inflateThread = true;
    Tav::CaptureStream stream(*loaded.reader, capture, options);
    openOrRaise(stream, capture, options.udpPort);
    CaptureSummary modules;
    std::string error;
    bool summarySeen = false;
    Tav::StatsSummary summary;
    {
        py::gil_scoped_release unlocked;
        while (stream.next()) {
            if (const Tav::Record* record = stream.record()) {
                std::uint32_t key = record->binLogHeader.logId >> 16;
                if (record->kind == Tav::RecordKind::Syslog) {
                    key = kSyslogRow;
                } else if (record->kind == Tav::RecordKind::Capture) {
                    key = kCaptureRow;
                }
                modules.record(key, record->number, record->pcapHeader);
                continue;
            }
            const Tav::Event& event = *stream.event();
            switch (event.kind) {
                case Tav::EventKind::UnknownLogId:
                    modules.record(event.logId >> 16, event.record, event.pcapHeader);
                    ++modules.row(event.logId >> 16).unknownIds;
                    break;
                case Tav::EventKind::VersionMismatch:
                case Tav::EventKind::LevelOutOfRange:
                case Tav::EventKind::InvalidPacketType:
                    modules.record(event.logId >> 16, event.record, event.pcapHeader);
                    break;
                case Tav::EventKind::Gap:
                case Tav::EventKind::Reorder:
                    modules.gapOrReorder(event);
                    break;
                case Tav::EventKind::Summary:
                    modules.settleAll();
                    summarySeen = true;
                    summary = event.summary;
                    break;
                case Tav::EventKind::Oversized:
                case Tav::EventKind::Truncated:
                case Tav::EventKind::DataError:
                case Tav::EventKind::ReadError: {
                    modules.settleAll();
                    std::string_view text = event.text;
                    while (!text.empty() && text.back() == '\n') {
                        text.remove_suffix(1);
                    }
                    error += error.empty() ? "'" + capture + "': " : "; ";
                    error += text;
                    break;
                }
                default:
                    modules.settleAll();
                    break;
            }
        }
        modules.settleAll();
        if (error.empty() && stream.damaged()) {
            error = "'" + capture + "' is damaged";
        }
    }
    // In the order of their keys, syslog and plain capture records last.
    std::vector<const ModuleCounts*> sorted;
    for (const ModuleCounts& counts : modules.rows()) {
        sorted.push_back(&counts);
    }
    std::sort(sorted.begin(), sorted.end(),
              [](const ModuleCounts* a, const ModuleCounts* b) { return a->key < b->key; });
    py::list rows;
    for (const ModuleCounts* counts : sorted) {
        const std::uint32_t key = counts->key;
        py::dict row;
        std::string name;
        const auto found = loaded.reader->moduleDetailsMap.find(static_cast<std::uint16_t>(key));
        if (key == kSyslogRow) {
            name = "(syslog)";
        } else if (key == kCaptureRow) {
            name = "(capture)";
        } else if (found != loaded.reader->moduleDetailsMap.end()) {
            name = found->second.subsystemName + ":" + found->second.moduleName;
        } else {
            char hex[16];
            snprintf(hex, sizeof hex, "0x%04x", static_cast<unsigned>(key));
            name = hex;
        }
        row["module_key"] = key <= 0xFFFF ? py::object(py::int_(key)) : py::object(py::none());
        row["module"] = py::reinterpret_steal<py::object>(textObject(name.data(), name.size()));
        row["records"] = counts->records;
        row["missing"] = counts->missing;
        row["reorders"] = counts->reorders;
        row["unknown_ids"] = counts->unknownIds;
        row["first_us"] = counts->timed ? py::object(py::int_(counts->firstUs)) : py::none();
        row["last_us"] = counts->timed ? py::object(py::int_(counts->lastUs)) : py::none();
        rows.append(row);
    }
    py::dict result;
    result["rows"] = rows;
    result["error"] = error.empty() ? py::object(py::none()) : py::object(py::str(error));
    if (summarySeen) {
        result["total"] = summary.totalRecords;
        result["missing"] = summary.missingRecords;
    } else {
        result["total"] = py::none();
        result["missing"] = py::none();
    }
    return result;
}

// ---- The Dictionary type -----------------------------------------------------------------

/// Writes every error the dictionary checker finds in a dictionary that
/// loaded to Python's sys.stderr, once, as a warning (as binlog-decode does):
/// such a dictionary loads, but its records show wrong, shifted or missing
/// values. Warnings are left to binlog-lint.
void warnAboutDictionary(const std::string& path) {
    const std::vector<wexbl_lint::Finding> findings = wexbl_lint::lintDictionary(path);
    if (!wexbl_lint::hasErrors(findings)) {
        return;
    }
    std::string text;
    for (const wexbl_lint::Finding& finding : findings) {
        if (finding.severity != wexbl_lint::Severity::Error) {
            continue;
        }
        text += "wexbinlog: warning: " + finding.file;
        if (finding.line > 0) {
            text += ":" + std::to_string(finding.line);
        }
        text += ": " + finding.message + " [" + finding.check + "]\n";
    }
    // Bytes a file name or a message holds that are not UTF-8 are shown
    // escaped rather than failing the load.
    py::module_::import("sys").attr("stderr").attr("write")(py::reinterpret_steal<py::object>(
        PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace")));
}

class Dictionary {
  public:
    Dictionary(const std::string& path, bool lint) : loaded_(loadDictionary(path)) {
        if (lint) {
            warnAboutDictionary(path);
        }
    }
    const std::string& path() const { return loaded_->path; }
    std::shared_ptr<Loaded> loaded() const { return loaded_; }

  private:
    std::shared_ptr<Loaded> loaded_;
};

}  // namespace

}  // namespace wexbl_python

PYBIND11_MODULE(_wexbinlog, m) {
    using wexbl_python::Dictionary;
    using wexbl_python::Reader;
    m.doc() = "Binary log captures decoded with XML dictionaries";
    m.attr("__version__") = WEXBL_VERSION;
    m.def(
        "check_filter",
        [](const std::string& expression) { wexbl_python::compileFilter(py::str(expression)); },
        py::arg("expression"),
        "Raises ValueError, with what is wrong and where, when the filter expression does not "
        "compile.");
    py::class_<Reader>(m, "Reader")
        .def("__iter__", [](Reader& self) -> Reader& { return self; })
        .def("__next__", &Reader::next);
    py::class_<Dictionary>(m, "Dictionary")
        .def(py::init<const std::string&, bool>(), py::arg("path"), py::arg("lint") = true)
        .def_property_readonly("path", &Dictionary::path)
        .def(
            "read",
            [](const Dictionary& self, const std::string& capture, int udp_port, int utc_offset,
               bool stats, const py::object& filter, int max_var_bytes) {
                return std::make_unique<Reader>(self.loaded(), capture, udp_port, utc_offset, stats,
                                                filter, max_var_bytes);
            },
            py::arg("capture"), py::arg("udp_port") = 0, py::arg("utc_offset") = 0,
            py::arg("stats") = false, py::arg("filter") = py::none(),
            py::arg("max_var_bytes") = 65535)
        .def(
            "summary",
            [](const Dictionary& self, const std::string& capture, int udp_port) {
                return wexbl_python::summarize(*self.loaded(), capture, udp_port);
            },
            py::arg("capture"), py::arg("udp_port") = 0)
        .def("__repr__",
             [](const Dictionary& self) {
                 return "Dictionary(" + py::repr(py::str(self.path())).cast<std::string>() + ")";
             })
        .def(py::pickle([](const Dictionary& self) { return py::make_tuple(self.path()); },
                        [](const py::tuple& state) {
                            if (state.size() != 1) {
                                throw py::value_error("a Dictionary pickles its path only");
                            }
                            // The checker's warnings were shown where the
                            // dictionary was first loaded.
                            return std::make_unique<Dictionary>(state[0].cast<std::string>(),
                                                                false);
                        }));
}
