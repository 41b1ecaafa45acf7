// The pull API: a capture read record by record against a loaded reader,
// with the decoding state of its own.
#include "WexOamBinLogXmlReader/CaptureStream.h"

#include "stream/StreamImpl.h"

namespace Tav {

StreamSession::StreamSession(const BinaryLogXmlReader& reader)
    : state_(std::make_unique<State>(reader)) {}

StreamSession::~StreamSession() = default;

namespace {

capture::Inflater inflaterOf(const StreamOptions& options) {
    return options.fastInflate ? capture::Inflater::Fastest : capture::Inflater::Zlib;
}

}  // namespace

const char* CaptureStream::inflaterName() {
    return capture::inflaterDescription();
}

StreamSession::State* CaptureStream::sessionState(const StreamOptions& options) {
    return options.session != nullptr ? options.session->state_.get() : nullptr;
}

CaptureStream::CaptureStream(const BinaryLogXmlReader& reader, const std::string& path,
                             const StreamOptions& options)
    : impl_(std::make_unique<Impl>(reader, path, options, sessionState(options))) {
    if (options.follow) {
        impl_->source = capture::followFile(path);
    } else {
        impl_->source = capture::openFile(path, inflaterOf(options));
        if (options.inflateThread && impl_->source) {
            impl_->source = capture::pipelined(std::move(impl_->source));
        }
    }
    if (impl_->source) {
        impl_->source->setStopFlag(&impl_->stop);
    }
}

CaptureStream::CaptureStream(const BinaryLogXmlReader& reader, const std::string& name,
                             const unsigned char* data, std::size_t size,
                             const StreamOptions& options)
    : impl_(std::make_unique<Impl>(reader, name, options, sessionState(options))) {
    impl_->source = capture::openMemory(data, size, inflaterOf(options));
    if (options.inflateThread) {
        impl_->source = capture::pipelined(std::move(impl_->source));
    }
    if (impl_->source) {
        impl_->source->setStopFlag(&impl_->stop);
    }
}

CaptureStream::CaptureStream(const BinaryLogXmlReader& reader, const std::string& name, int fd,
                             bool own, const StreamOptions& options)
    : impl_(std::make_unique<Impl>(reader, name, options, sessionState(options))) {
    impl_->source = capture::openDescriptor(fd, own, false, inflaterOf(options));
    if (impl_->source) {
        impl_->source->setStopFlag(&impl_->stop);
    }
}

CaptureStream::~CaptureStream() = default;

bool CaptureStream::next() {
    return impl_->next();
}

const Record* CaptureStream::record() const {
    return impl_->item == Impl::Item::Record ? &impl_->decoder.record() : nullptr;
}

const Event* CaptureStream::event() const {
    return impl_->item == Impl::Item::Event ? &impl_->current : nullptr;
}

bool CaptureStream::waiting() const {
    return impl_->waiting;
}

void CaptureStream::requestStop() noexcept {
    impl_->stop.store(true, std::memory_order_relaxed);
}

bool CaptureStream::open() {
    if (impl_->phase == detail::StreamPhase::Open) {
        impl_->open();
    }
    return impl_->opened;
}

bool CaptureStream::opened() const {
    return impl_->opened;
}

CaptureFormat CaptureStream::format() const {
    if (!impl_->opened) {
        return CaptureFormat::Unknown;
    }
    switch (impl_->pcap->format()) {
        case capture::CaptureFormat::PcapMicro:
            return CaptureFormat::Pcap;
        case capture::CaptureFormat::PcapNano:
            return CaptureFormat::PcapNanoseconds;
        case capture::CaptureFormat::PcapMicroSwapped:
            return CaptureFormat::PcapBigEndian;
        case capture::CaptureFormat::PcapNanoSwapped:
            return CaptureFormat::PcapNanosecondsBigEndian;
        case capture::CaptureFormat::PcapNg:
            return CaptureFormat::PcapNg;
        default:
            return CaptureFormat::Unknown;
    }
}

std::uint32_t CaptureStream::linkType() const {
    return impl_->pcap ? impl_->pcap->linkType() : 0;
}

std::string CaptureStream::firstBytes() const {
    return impl_->leading;
}

bool CaptureStream::compressed() const {
    return impl_->source && impl_->source->compressed();
}

bool CaptureStream::damaged() const {
    return impl_->damaged;
}

std::uint64_t CaptureStream::recordsRead() const {
    return impl_->pcap ? impl_->pcap->records() : 0;
}

std::uint64_t CaptureStream::bytesRead() const {
    return impl_->source ? impl_->source->offset() : 0;
}

std::uint64_t CaptureStream::inputBytesRead() const {
    return impl_->source ? impl_->source->inputBytes() : 0;
}

std::string CaptureStream::statisticsSoFar() const {
    if (!impl_->options.stats) {
        return std::string();
    }
    StatsSummary figures;
    return detail::summaryText(impl_->stats, figures);
}

CaptureStream::SkippedFrames CaptureStream::skippedFrames() const {
    return impl_->skipped;
}

std::vector<std::pair<std::uint16_t, std::uint64_t>> CaptureStream::udpPorts() const {
    return std::vector<std::pair<std::uint16_t, std::uint64_t>>(impl_->ports.begin(),
                                                                impl_->ports.end());
}

}  // namespace Tav
