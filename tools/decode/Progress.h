// The progress line binlog-decode keeps on standard error during a long run
// (when standard error is a terminal, or with --progress): the capture, how
// much of it was read, the records, the rate and the time left. Redrawn at
// most four times a second and erased at the end.
#ifndef WEXBL_TOOLS_DECODE_PROGRESS_H
#define WEXBL_TOOLS_DECODE_PROGRESS_H

#include <cstdint>
#include <string>

namespace wexbl_decode {

class Progress {
  public:
    explicit Progress(bool enabled) : enabled_(enabled) {}
    ~Progress() { erase(); }

    /// A new capture of `size` bytes on disk (0 when unknown).
    void startCapture(const std::string& name, std::uint64_t size);
    /// Called for every record, or for `added` records at once; redraws
    /// every 4096 records or so. `bytesRead` gives the bytes read so far,
    /// asked for only when the line is redrawn.
    template <typename BytesRead>
    void update(const BytesRead& bytesRead, std::uint64_t records, std::uint64_t added = 1) {
        if (enabled_ && (counted_ += added) >= nextDraw_) {
            nextDraw_ = counted_ + 4096;
            draw(bytesRead(), records);
        }
    }
    /// Removes the line (before anything else is written to the terminal).
    void erase();

  private:
    void draw(std::uint64_t bytesRead, std::uint64_t records);

    bool enabled_;
    bool shown_ = false;
    std::string name_;
    std::uint64_t size_ = 0;
    std::uint64_t counted_ = 0;  // records given to update()
    std::uint64_t nextDraw_ = 4096;
    double started_ = 0;
    double lastDrawn_ = 0;
};

}  // namespace wexbl_decode

#endif
