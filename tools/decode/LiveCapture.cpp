#include "LiveCapture.h"

#include <time.h>

#include <cerrno>
#include <cstring>

#include "binlog_synth/Capture.h"

namespace wexbl_decode {

namespace {

constexpr std::size_t kDeflateBuffer = 1 << 16;
/// zlib's fastest level: a listener has to keep up with the sender.
constexpr int kGzipLevel = 1;
/// zlib's window bits with 16 added: a gzip header and trailer.
constexpr int kGzipWindowBits = 15 + 16;

double monotonicSeconds() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

LiveCapture::LiveCapture(std::string path, std::uint64_t rotateBytes, std::uint64_t rotateSeconds)
    : path_(std::move(path)),
      rotateBytes_(rotateBytes),
      rotateSeconds_(rotateSeconds),
      gzip_(endsWith(path_, ".gz")) {}

LiveCapture::~LiveCapture() {
    std::string ignored;
    closeFile(ignored);
}

std::string LiveCapture::numberedPath(const std::string& path, std::uint64_t number) {
    char digits[32];
    snprintf(digits, sizeof digits, "-%06llu", static_cast<unsigned long long>(number));
    const std::size_t slash = path.rfind('/');
    const std::size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
    std::size_t at = path.find(".pcap", nameStart);
    if (at == std::string::npos || at == nameStart) {
        at = path.rfind('.');
        if (at == std::string::npos || at <= nameStart) {
            at = path.size();
        }
    }
    return path.substr(0, at) + digits + path.substr(at);
}

bool LiveCapture::open(std::string& error) {
    return openFile(error);
}

bool LiveCapture::failed(const std::string& what, std::string& error) {
    error = "cannot " + what + " '" + current_ + "': " + strerror(errno);
    return false;
}

bool LiveCapture::openFile(std::string& error) {
    ++files_;
    current_ = rotateBytes_ != 0 || rotateSeconds_ != 0 ? numberedPath(path_, files_) : path_;
    file_.reset(fopen(current_.c_str(), "wb"));
    if (!file_) {
        return failed("create", error);
    }
    fileBytes_ = 0;
    fileRecords_ = 0;
    opened_ = monotonicSeconds();
    lastSync_ = opened_;
    if (gzip_) {
        zstream_ = z_stream();
        if (deflateInit2(&zstream_, kGzipLevel, Z_DEFLATED, kGzipWindowBits, 8,
                         Z_DEFAULT_STRATEGY) != Z_OK) {
            error = "cannot start compressing '" + current_ + "'";
            file_.reset();
            return false;
        }
        deflating_ = true;
        zbuffer_.resize(kDeflateBuffer);
    }
    scratch_.str().clear();
    binlog_synth::appendGlobalHeader(scratch_, binlog_synth::kLinkTypeEthernet, 65535);
    return put(scratch_.str(), error);
}

bool LiveCapture::deflateOut(int flush, std::string& error) {
    for (;;) {
        zstream_.next_out = zbuffer_.data();
        zstream_.avail_out = static_cast<uInt>(zbuffer_.size());
        const int status = deflate(&zstream_, flush);
        if (status == Z_STREAM_ERROR) {
            error = "cannot compress '" + current_ + "'";
            return false;
        }
        const std::size_t produced = zbuffer_.size() - zstream_.avail_out;
        if (produced != 0 && fwrite(zbuffer_.data(), 1, produced, file_.get()) != produced) {
            return failed("write", error);
        }
        fileBytes_ += produced;
        // Done when the input is used up and the compressor has nothing
        // more to hand out (it filled less than the whole buffer).
        if (zstream_.avail_in == 0 && zstream_.avail_out != 0) {
            return flush != Z_FINISH || status == Z_STREAM_END;
        }
    }
}

bool LiveCapture::put(const std::string& bytes, std::string& error) {
    dirty_ = true;
    if (!gzip_) {
        if (fwrite(bytes.data(), 1, bytes.size(), file_.get()) != bytes.size()) {
            return failed("write", error);
        }
        fileBytes_ += bytes.size();
        return true;
    }
    zstream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    zstream_.avail_in = static_cast<uInt>(bytes.size());
    return deflateOut(Z_NO_FLUSH, error);
}

bool LiveCapture::write(const ReceivedDatagram& datagram, std::string& error) {
    if (!file_) {
        error = "'" + current_ + "' is not open";
        return false;
    }
    binlog_synth::Framing framing;
    framing.kind = datagram.ipv4 ? binlog_synth::LinkKind::Ipv4 : binlog_synth::LinkKind::Ipv6;
    framing.layer = binlog_synth::LinkLayer::Ethernet;
    framing.srcPort = datagram.sourcePort;
    framing.dstPort = datagram.destinationPort;
    if (datagram.ipv4) {
        std::memcpy(framing.ipv4Src.data(), datagram.source.data(), 4);
        std::memcpy(framing.ipv4Dst.data(), datagram.destination.data(), 4);
    } else {
        framing.ipv6Src = datagram.source;
        framing.ipv6Dst = datagram.destination;
    }
    payload_.assign(reinterpret_cast<const char*>(datagram.data), datagram.size);
    frame_.str().clear();
    binlog_synth::appendEthernetFrame(frame_, framing, binlog_synth::RecordOptions(), payload_,
                                      ipId_++);
    const std::size_t frameSize = frame_.size();

    // A new file first when this one is full or old enough (never an empty
    // one: each file holds at least one datagram).
    if (fileRecords_ != 0 && ((rotateBytes_ != 0 && fileBytes_ + 16 + frameSize > rotateBytes_) ||
                              (rotateSeconds_ != 0 && monotonicSeconds() - opened_ >=
                                                          static_cast<double>(rotateSeconds_)))) {
        if (!closeFile(error) || !openFile(error)) {
            return false;
        }
    }
    scratch_.str().clear();
    binlog_synth::PcapRecordHeader header;
    header.tsSec = datagram.seconds;
    header.tsUsec = datagram.microseconds;
    header.capturedLength = static_cast<std::uint32_t>(frameSize);
    header.storageLength = static_cast<std::uint32_t>(frameSize);
    binlog_synth::appendPcapRecHeader(scratch_, header);
    scratch_.str() += frame_.str();
    ++fileRecords_;
    return put(scratch_.str(), error);
}

bool LiveCapture::idle(std::string& error) {
    if (!file_ || !dirty_) {
        return true;
    }
    if (gzip_) {
        const double now = monotonicSeconds();
        if (now - lastSync_ < 1.0) {
            return true;
        }
        lastSync_ = now;
        zstream_.next_in = nullptr;
        zstream_.avail_in = 0;
        if (!deflateOut(Z_SYNC_FLUSH, error)) {
            return false;
        }
    }
    dirty_ = false;
    if (fflush(file_.get()) != 0) {
        return failed("write", error);
    }
    return true;
}

bool LiveCapture::close(std::string& error) {
    return closeFile(error);
}

bool LiveCapture::closeFile(std::string& error) {
    bool good = true;
    if (deflating_) {
        zstream_.next_in = nullptr;
        zstream_.avail_in = 0;
        good = file_ && deflateOut(Z_FINISH, error);
        deflateEnd(&zstream_);
        deflating_ = false;
    }
    if (file_) {
        FILE* file = file_.release();
        if (fclose(file) != 0 && good) {
            good = failed("write", error);
        }
    }
    return good;
}

}  // namespace wexbl_decode
