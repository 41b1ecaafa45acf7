// binlog-decode --listen: records received as UDP datagrams, decoded as they
// arrive through the same writer, filter and diagnostics as captured ones.
#ifndef WEXBL_TOOLS_DECODE_LISTEN_H
#define WEXBL_TOOLS_DECODE_LISTEN_H

#include <atomic>

#include "Diagnostics.h"
#include "Options.h"
#include "Output.h"
#include "Writer.h"

namespace Tav {
class BinaryLogXmlReader;
class Filter;
}  // namespace Tav

namespace wexbl_decode {

/// What the listener watches besides its socket: set by SIGINT or SIGTERM
/// (stop), and by SIGUSR1 (print the summary and go on).
struct ListenSignals {
    std::atomic<bool>& stop;
    std::atomic<bool>& summary;
};

/// Receives and decodes until a signal, --count or an error; returns the
/// exit status (0 after a signal).
int listen(const Tav::BinaryLogXmlReader& reader, const Options& options, const Tav::Filter* filter,
           Output& out, Writer& writer, Diagnostics& diagnostics, ListenSignals signals);

}  // namespace wexbl_decode

#endif
