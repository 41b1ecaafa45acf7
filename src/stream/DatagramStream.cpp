// Datagrams received live, decoded one by one through a capture stream's
// state without a capture behind it.
#include "WexOamBinLogXmlReader/DatagramStream.h"

#include "stats/StatsCore.h"
#include "stream/StreamImpl.h"

namespace Tav {

struct DatagramStream::Impl {
    Impl(const BinaryLogXmlReader& reader, const std::string& name, const StreamOptions& options)
        : stream(reader, name, options, CaptureStream::sessionState(options)) {
        // No capture to open or read: next() only hands out what push() made.
        stream.phase = detail::StreamPhase::Done;
    }

    CaptureStream::Impl stream;
    std::uint64_t datagrams = 0;
    std::uint64_t malformed = 0;
};

DatagramStream::DatagramStream(const BinaryLogXmlReader& reader, const std::string& name,
                               const StreamOptions& options)
    : impl_(std::make_unique<Impl>(reader, name, options)) {}

DatagramStream::~DatagramStream() = default;

DatagramStream::Result DatagramStream::push(const unsigned char* data, std::size_t size) {
    ++impl_->datagrams;
    if (size < kMinDatagramBytes) {
        ++impl_->malformed;
        return Result::TooShort;
    }
    if (size > kMaxDatagramBytes) {
        ++impl_->malformed;
        return Result::TooLong;
    }
    impl_->stream.pushDatagram(ByteReader(data, size), impl_->datagrams);
    return Result::Decoded;
}

bool DatagramStream::next() {
    return impl_->stream.next();
}

const Record* DatagramStream::record() const {
    return impl_->stream.item == CaptureStream::Impl::Item::Record ? &impl_->stream.decoder.record()
                                                                   : nullptr;
}

const Event* DatagramStream::event() const {
    return impl_->stream.item == CaptureStream::Impl::Item::Event ? &impl_->stream.current
                                                                  : nullptr;
}

std::uint64_t DatagramStream::datagrams() const {
    return impl_->datagrams;
}

std::uint64_t DatagramStream::malformed() const {
    return impl_->malformed;
}

std::string DatagramStream::statisticsSoFar() const {
    if (!impl_->stream.options.stats) {
        return std::string();
    }
    StatsSummary figures;
    return detail::summaryText(impl_->stream.stats, figures);
}

}  // namespace Tav
