// What binlog-decode says on standard error about a capture: every message
// names the capture and, where there is one, the record
// ("binlog-decode: a.pcap.gz: record 12: log id 0x2010009 not valid"). A
// message repeated within one capture is shown the first 10 times, then
// counted and told once more at the end of that capture (--verbose shows
// every one).
#ifndef WEXBL_TOOLS_DECODE_DIAGNOSTICS_H
#define WEXBL_TOOLS_DECODE_DIAGNOSTICS_H

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "Output.h"
#include "Progress.h"
#include "WexOamBinLogXmlReader/Record.h"

namespace wexbl_decode {

class Diagnostics {
  public:
    /// `resync`: damage does not end a capture (--resync).
    Diagnostics(Output& output, Progress& progress, bool verbose, bool resync)
        : output_(output), progress_(progress), verbose_(verbose), resync_(resync) {}

    /// Starts the messages about a capture named `name`.
    void startCapture(const std::string& name);
    /// Says what a library event on the error stream means; true when the
    /// event marks the capture as damaged.
    bool report(const Tav::Event& event);
    /// A message of the tool's own about the current capture (no record).
    void say(const std::string& text);
    /// Tells how often the messages held back were repeated.
    void endCapture();

  private:
    /// Prints "program: capture: [record N: ]text", or counts it when the
    /// same text was shown often enough already.
    void print(std::uint64_t record, const std::string& text);

    Output& output_;
    Progress& progress_;
    bool verbose_;
    bool resync_;
    std::string capture_;
    /// Text -> times seen in this capture, and the texts in first-seen order.
    std::unordered_map<std::string, std::uint64_t> seen_;
    std::vector<std::string> order_;
    /// Messages shown past the different texts counted (see kTracked).
    std::uint64_t untracked_ = 0;
    bool enumerationsReported_ = false;
};

}  // namespace wexbl_decode

#endif
