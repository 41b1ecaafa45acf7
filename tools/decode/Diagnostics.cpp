#include "Diagnostics.h"

#include <cstdio>

#include "../common/CliMessage.h"

namespace wexbl_decode {

namespace {

/// Messages of one kind shown per capture before they are only counted.
constexpr std::uint64_t kShown = 10;
/// Different texts counted per capture at the most. In a capture of garbage
/// nearly every message differs (a log id each); past this many, the others
/// are shown as they come and not kept, so memory stays bounded.
constexpr std::size_t kTracked = 10000;

std::string hex(std::uint32_t value) {
    char text[16];
    snprintf(text, sizeof text, "0x%x", value);
    return text;
}

}  // namespace

void Diagnostics::startCapture(const std::string& name) {
    capture_ = name;
    seen_.clear();
    order_.clear();
    untracked_ = 0;
}

void Diagnostics::print(std::uint64_t record, const std::string& text) {
    // --verbose shows every message: nothing to count.
    if (!verbose_) {
        const auto found = seen_.find(text);
        if (found != seen_.end()) {
            if (++found->second > kShown) {
                return;
            }
        } else if (seen_.size() < kTracked) {
            seen_.emplace(text, 1);
            order_.push_back(text);
        } else {
            ++untracked_;
        }
    }
    output_.flush();
    progress_.erase();
    if (record != 0) {
        fprintf(stderr, "%s: %s: record %llu: %s\n", wexbl_cli::kProgramName, capture_.c_str(),
                static_cast<unsigned long long>(record), text.c_str());
    } else {
        fprintf(stderr, "%s: %s: %s\n", wexbl_cli::kProgramName, capture_.c_str(), text.c_str());
    }
}

void Diagnostics::say(const std::string& text) {
    print(0, text);
}

bool Diagnostics::report(const Tav::Event& event) {
    using Tav::EventKind;
    const std::uint64_t record = event.record;
    switch (event.kind) {
        case EventKind::UnknownLogId:
            print(record, "log id " + hex(event.logId) + " not valid");
            return false;
        case EventKind::InvalidPacketType:
            print(record, "packet type " + std::to_string(event.packetType) + " not valid");
            return false;
        case EventKind::SyslogTooShort:
            print(record, "syslog record skipped: storageLength " + std::to_string(event.length) +
                              " is shorter than its 32 header bytes");
            return false;
        case EventKind::VarBinaryTooLong:
            print(record, "var binary string: the payload's count " + std::to_string(event.count) +
                              " is above its declared size " + std::to_string(event.length));
            return false;
        case EventKind::DisplayNotFound:
            print(record, "display format '" + std::string(event.name) +
                              "' names no enumeration: its values are shown as numbers");
            return false;
        case EventKind::DisplayUnavailable:
            // One message for the whole run: every value of every record would
            // repeat it.
            if (!enumerationsReported_) {
                enumerationsReported_ = true;
                print(record,
                      "the enumerations did not load: from here on, values with an enumeration "
                      "format are shown as numbers");
            }
            return false;
        case EventKind::TimestampFailed:
            print(record, "the record's time cannot be shown");
            return false;
        case EventKind::Truncated: {
            const std::string after =
                resync_ ? ": looking for the next record" : ": the rest of the capture is skipped";
            if (event.length == 0 && event.count == 0) {
                // A pcapng block whose structure is broken.
                print(0, "a damaged pcapng block at byte " + std::to_string(event.offset) + after);
            } else if (event.count < 0) {
                print(0, "truncated: the last record (" + std::to_string(event.length) +
                             " bytes) could not be read");
            } else {
                print(0, "truncated: the last record has " + std::to_string(event.count) +
                             " of its " + std::to_string(event.length) + " bytes");
            }
            return true;
        }
        case EventKind::Oversized:
            print(0, "a record of " + std::to_string(event.length) + " bytes at byte " +
                         std::to_string(event.offset) + ", above the limit of 25000" +
                         (resync_ ? ": looking for the next record"
                                  : ": the rest of the capture is skipped"));
            return true;
        case EventKind::DataError:
            print(0, "damaged compressed data after " + std::to_string(event.count) +
                         " uncompressed bytes (" + std::string(event.name) + ")" +
                         (resync_ ? ": looking for a point to resume"
                                  : ": the rest of the capture is lost"));
            return true;
        case EventKind::Resync:
            if (event.length != 0) {
                print(0, "resynchronised: skipped bytes " + std::to_string(event.offset) + " to " +
                             std::to_string(event.offset + event.count) + " (" +
                             std::to_string(event.count) + " bytes" +
                             (event.compressedSkipped != 0
                                  ? ", and " + std::to_string(event.compressedSkipped) +
                                        " compressed bytes"
                                  : std::string()) +
                             ")");
            } else {
                print(0, "no record found after the damage: bytes " + std::to_string(event.offset) +
                             " to " + std::to_string(event.offset + event.count) +
                             ", the end, skipped" +
                             (event.compressedSkipped != 0
                                  ? " (and " + std::to_string(event.compressedSkipped) +
                                        " compressed bytes)"
                                  : std::string()));
            }
            return false;
        case EventKind::ReadError:
            print(0, "read error: " + std::string(event.name));
            return true;
        case EventKind::Note: {
            std::string text(event.text);
            if (text.compare(0, 6, "Note: ") == 0) {
                text.erase(0, 6);
            }
            if (!text.empty() && text.back() == '\n') {
                text.pop_back();
            }
            print(0, text);
            return false;
        }
        default: {
            // Anything else: the library's own words.
            std::string text(event.text);
            if (!text.empty() && text.back() == '\n') {
                text.pop_back();
            }
            print(record, text);
            return false;
        }
    }
}

void Diagnostics::endCapture() {
    for (const std::string& text : order_) {
        const std::uint64_t count = seen_[text];
        if (!verbose_ && count > kShown) {
            output_.flush();
            progress_.erase();
            fprintf(stderr, "%s: %s: %s: %llu times in all, %llu more not shown\n",
                    wexbl_cli::kProgramName, capture_.c_str(), text.c_str(),
                    static_cast<unsigned long long>(count),
                    static_cast<unsigned long long>(count - kShown));
        }
    }
    if (untracked_ != 0) {
        output_.flush();
        progress_.erase();
        fprintf(stderr,
                "%s: %s: %llu more messages, past %zu different ones, were each shown, "
                "their repeats not counted\n",
                wexbl_cli::kProgramName, capture_.c_str(),
                static_cast<unsigned long long>(untracked_), kTracked);
    }
    seen_.clear();
    order_.clear();
    untracked_ = 0;
}

}  // namespace wexbl_decode
