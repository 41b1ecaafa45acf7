// One capture decoded on several cores: the capture stream reads in the
// calling thread and does what the record headers decide, workers decode the
// payloads, filter, report and render, and the items come out in capture
// order.
#include "WexOamBinLogXmlReader/ParallelStream.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

#include "stream/StreamImpl.h"

namespace Tav {

namespace {

// A batch ends at this many items (records and the capture stream's events)
// or bytes (payloads and event texts): a capture of nothing but events, a log
// id the dictionary lacks in every record, is cut into batches too.
constexpr std::size_t kBatchItems = 2048;
constexpr std::size_t kBatchBytes = 1024 * 1024;

/// A run of items in capture order: the records to decode and render, and
/// the events between them.
struct Batch {
    /// An event of the capture stream (an item of its own), or one a worker
    /// reported while decoding a record's payload (handed out before it).
    /// Its texts are kept in `eventTexts`.
    struct Kept {
        Event event;
        std::size_t textOffset = 0;
        std::size_t nameOffset = 0;
        std::size_t payloadOffset = 0;
    };

    /// A record to decode, as the reading thread read it (left as it is for
    /// an event of the capture stream).
    struct Item {
        ParallelStream::RecordHeaders headers;
        std::size_t payloadOffset = 0;
        std::size_t payloadSize = 0;
        std::uint32_t statsLength = 0;
        std::uint64_t offset = 0;
        /// The plan the reading thread's checks found (binlog and legacy
        /// records): the worker does not look it up and check again.
        const detail::LogPlan* plan = nullptr;
    };

    /// What is handed out for an item: kept apart from the items, small, so
    /// that handing out reads few of the cache lines a worker wrote.
    struct Out {
        std::size_t renderedOffset = 0;
        std::size_t renderedSize = 0;
        // The events handed out with the item (before a record), in
        // `events` from `firstEvent`.
        std::uint32_t firstEvent = 0;
        std::uint32_t eventCount = 0;
        bool isRecord = false;
        bool produced = false;
    };

    /// Keeps an event with copies of its texts, which are views valid
    /// during the call only.
    void keep(const Event& event) {
        Kept kept;
        kept.event = event;
        kept.textOffset = eventTexts.size();
        eventTexts.append(event.text);
        kept.nameOffset = eventTexts.size();
        eventTexts.append(event.name);
        kept.payloadOffset = eventTexts.size();
        eventTexts.append(event.payload);
        events.push_back(kept);
    }

    /// The event `index` with its texts in place, valid while the batch is.
    Event event(std::size_t index) const {
        const Kept& kept = events[index];
        Event event = kept.event;
        event.text = std::string_view(eventTexts.data() + kept.textOffset, kept.event.text.size());
        event.name = std::string_view(eventTexts.data() + kept.nameOffset, kept.event.name.size());
        event.payload =
            std::string_view(eventTexts.data() + kept.payloadOffset, kept.event.payload.size());
        return event;
    }

    /// The items' room is made once: a batch is used again and again, and
    /// an item is set where it lies.
    Batch() : items(kBatchItems), outs(kBatchItems) {}

    /// The next item's place and its out, reset.
    Item& add() {
        outs[count] = Out();
        return items[count++];
    }

    void clear() {
        count = 0;
        handouts = 0;
        events.clear();
        eventTexts.clear();
        payloads.clear();
        rendered.clear();
        lines.clear();
        done = false;
        error = nullptr;
    }
    bool full() const {
        return count == kBatchItems || payloads.size() + eventTexts.size() >= kBatchBytes;
    }

    std::size_t count = 0;  // items in use
    std::vector<Item> items;
    std::vector<Out> outs;  // one for each item
    /// Items to hand out: the events, and the records the filter kept; set
    /// by the worker that rendered the batch.
    std::size_t handouts = 0;
    std::vector<Kept> events;
    std::string eventTexts;
    detail::TextBuilder payloads;  // appended inline, unlike a string
    /// The renderings: what `render` appended, or without a `render` the
    /// lines themselves, which the decoder writes here.
    std::string rendered;
    detail::TextBuilder lines;
    bool done = false;  // guarded by the stream's mutex
    std::exception_ptr error;
};

/// A worker's own decoding state: the level table is a copy; what the
/// decoding of a payload reports goes into the batch, to be handed out
/// before its record.
struct WorkerDecoder : detail::EventSink {
    explicit WorkerDecoder(const std::map<std::uint16_t, std::string>& names)
        : levelNames(names), levels(levelNames), decoder(levels, stats, *this) {}
    void emit(const Event& event) override { batch->keep(event); }

    Batch* batch = nullptr;
    std::map<std::uint16_t, std::string> levelNames;
    detail::LevelTable levels;
    BinaryLogStatsCollector stats;
    detail::RecordDecoder decoder;
};

}  // namespace

struct ParallelStream::Impl {
    Impl(CaptureStream& captureStream, unsigned jobs, Render renderer)
        : core(*captureStream.impl_),
          saved(core.settings),
          render(std::move(renderer)),
          limit(2 * static_cast<std::size_t>(jobs) + 3) {
        // The capture stream decides in record order what the headers
        // decide; the workers decode the payloads, filter and report.
        core.keepInputs = true;
        settings = core.settings;
        settings.texts = true;
        settings.fields = true;
        settings.stats = false;
        settings.levelChecked = true;
        settings.filter = core.options.filter;
        core.settings.headerOnly = true;
        core.settings.texts = false;
        core.settings.fields = false;
        core.settings.filter = nullptr;
        // Copied here, before any thread starts: the reading thread's table
        // grows while the workers run.
        const std::map<std::uint16_t, std::string> names = core.session.levelNames;
        readerState = std::make_unique<WorkerDecoder>(names);
        try {
            offerIdleWork(names);
            for (unsigned i = 0; i < jobs; ++i) {
                workers.emplace_back([this, names] { work(names); });
            }
        } catch (...) {
            // A thread that cannot start: the others are stopped, and the
            // capture stream is left as it was.
            stopWorkers();
            throw;
        }
    }

    ~Impl() { stopWorkers(); }

    /// A capture read in a thread of its own: that thread renders batches
    /// while it holds all the bytes it may and after the capture's last ones.
    /// (Apart from the constructor, whose worker threads' lambda keeps its
    /// exported name.)
    void offerIdleWork(const std::map<std::uint16_t, std::string>& names) {
        if (!core.source) {
            return;
        }
        auto helper = std::make_unique<WorkerDecoder>(names);
        WorkerDecoder& state = *helper;
        if (core.source->setIdleWork([this, &state] { return renderQueued(state, nullptr); })) {
            helperState = std::move(helper);
        }
    }

    void stopWorkers() {
        if (helperState) {
            core.source->setIdleWork(nullptr);
        }
        {
            std::lock_guard<std::mutex> lock(mutex);
            quit = true;
        }
        wake.notify_all();
        for (std::thread& worker : workers) {
            worker.join();
        }
        workers.clear();
        core.keepInputs = false;
        core.settings = saved;
    }

    void work(const std::map<std::uint16_t, std::string>& names) {
        WorkerDecoder state(names);
        for (;;) {
            Batch* batch = nullptr;
            {
                std::unique_lock<std::mutex> lock(mutex);
                wake.wait(lock, [this] { return quit || !queued.empty(); });
                if (quit) {
                    return;
                }
                batch = queued.front();
                queued.pop_front();
            }
            finish(state, *batch);
        }
    }

    /// Renders `batch`, taken from the queue, and marks it done.
    void finish(WorkerDecoder& state, Batch& batch) {
        try {
            renderBatch(state, batch);
        } catch (...) {
            batch.error = std::current_exception();
        }
        {
            std::lock_guard<std::mutex> lock(mutex);
            batch.done = true;
        }
        finished.notify_all();
    }

    /// Renders the batch first in the queue, if any: false when there is
    /// none (or, with `awaited`, once that batch is done).
    bool renderQueued(WorkerDecoder& state, const Batch* awaited) {
        Batch* batch = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (quit || queued.empty() || (awaited != nullptr && awaited->done)) {
                return false;
            }
            batch = queued.front();
            queued.pop_front();
        }
        finish(state, *batch);
        return true;
    }

    void renderBatch(WorkerDecoder& state, Batch& batch) {
        const auto* payloads = reinterpret_cast<const unsigned char*>(batch.payloads.data());
        state.batch = &batch;
        // Without a `render`, a record's rendering is its line: written
        // where it is handed out from, not copied there.
        state.decoder.setLineBuffer(render ? nullptr : &batch.lines);
        // Taken once: the capture stream's state lies near what the reading
        // thread writes for every record.
        const std::string_view capture = core.name;
        const detail::PlanSet& plans = core.plans;
        std::size_t handouts = 0;
        for (std::size_t i = 0; i < batch.count; ++i) {
            const Batch::Item& item = batch.items[i];
            Batch::Out& out = batch.outs[i];
            if (!out.isRecord) {
                handouts += out.eventCount;
                continue;
            }
            detail::RecordOrigin origin;
            origin.capture = capture;
            origin.number = item.headers.number;
            origin.offset = item.offset;
            out.firstEvent = static_cast<std::uint32_t>(batch.events.size());
            state.decoder.decode(plans, settings, item.headers.pcap, item.headers.header,
                                 ByteReader(payloads + item.payloadOffset, item.payloadSize),
                                 item.statsLength, origin, item.plan);
            out.eventCount = static_cast<std::uint32_t>(batch.events.size() - out.firstEvent);
            out.produced = state.decoder.produced();
            handouts += out.eventCount + (out.produced ? 1 : 0);
            if (!render) {
                out.renderedOffset = batch.lines.size();
                out.renderedSize = 0;
                if (out.produced) {
                    placeLine(batch, out, state.decoder.record().text);
                }
                continue;
            }
            out.renderedOffset = batch.rendered.size();
            if (out.produced) {
                render(state.decoder.record(), batch.rendered);
            }
            out.renderedSize = batch.rendered.size() - out.renderedOffset;
        }
        batch.handouts = handouts;
        state.decoder.setLineBuffer(nullptr);
        state.batch = nullptr;
    }

    /// Notes where a record's line lies in the batch's lines, where the
    /// decoder wrote it; a line that lies elsewhere is copied there.
    static void placeLine(Batch& batch, Batch::Out& item, std::string_view line) {
        const auto base = reinterpret_cast<std::uintptr_t>(batch.lines.data());
        const auto at = reinterpret_cast<std::uintptr_t>(line.data());
        if (!line.empty() && at >= base && at - base <= batch.lines.size() &&
            line.size() <= batch.lines.size() - (at - base)) {
            item.renderedOffset = static_cast<std::size_t>(at - base);
        } else {
            item.renderedOffset = batch.lines.size();
            batch.lines.append(line);
        }
        item.renderedSize = line.size();
    }

    /// Reads the next item of the capture into `batch`; false at its end.
    bool read(Batch& batch) {
        // The stream's own state, not its exported members: no call through
        // the library's symbol table for every record.
        if (!core.next()) {
            return false;
        }
        if (core.item == CaptureStream::Impl::Item::Event) {
            batch.add() = Batch::Item();
            Batch::Out& out = batch.outs[batch.count - 1];
            out.firstEvent = static_cast<std::uint32_t>(batch.events.size());
            out.eventCount = 1;
            batch.keep(core.current);
            return true;
        }
        const CaptureStream::Impl::DecodeInputs& inputs = core.inputs;
        Batch::Item& item = batch.add();
        item.headers.pcap = inputs.pcap;
        item.headers.header = inputs.header;
        item.headers.number = inputs.number;
        item.headers.seconds = detail::shownSeconds(inputs.pcap, settings.utcOffsetMinutes);
        item.headers.kind = detail::recordKindOf(inputs.header.packetType);
        item.payloadOffset = batch.payloads.size();
        item.payloadSize = inputs.payload.size();
        item.statsLength = inputs.statsLength;
        item.offset = inputs.offset;
        item.plan = core.decoder.checkedPlan();
        batch.outs[batch.count - 1].isRecord = true;
        batch.payloads.append(reinterpret_cast<const char*>(inputs.payload.data()),
                              inputs.payload.size());
        return true;
    }

    /// Fills batches and hands them to the workers until `limit` are under
    /// way or the capture ends.
    void fill() {
        while (!ended && window.size() < limit) {
            std::unique_ptr<Batch> batch;
            if (!spare.empty()) {
                batch = std::move(spare.back());
                spare.pop_back();
                batch->clear();
            } else {
                batch = std::make_unique<Batch>();
            }
            while (!batch->full()) {
                if (!read(*batch)) {
                    ended = true;
                    break;
                }
            }
            if (batch->count == 0) {
                spare.push_back(std::move(batch));
                break;
            }
            Batch* handed = batch.get();
            window.push_back(std::move(batch));
            {
                std::lock_guard<std::mutex> lock(mutex);
                queued.push_back(handed);
            }
            wake.notify_one();
            if (helperState) {
                core.source->idleWorkQueued();
            }
        }
    }

    bool next() {
        currentItem = nullptr;
        recordNow = false;
        if (core.stop.load(std::memory_order_relaxed)) {
            return false;
        }
        if (current != nullptr && deliver()) {
            return true;
        }
        if (current != nullptr) {
            spare.push_back(std::move(window.front()));
            window.pop_front();
            current = nullptr;
        }
        for (;;) {
            fill();
            if (window.empty()) {
                return false;
            }
            Batch& batch = *window.front();
            // The batches not yet taken, the front one first, are rendered
            // here while it is not done.
            while (renderQueued(*readerState, &batch)) {
            }
            {
                std::unique_lock<std::mutex> lock(mutex);
                finished.wait(lock, [&batch] { return batch.done; });
            }
            if (batch.error) {
                std::rethrow_exception(batch.error);
            }
            current = &batch;
            at = 0;
            sub = 0;
            remaining = batch.handouts;
            if (deliver()) {
                return true;
            }
            // A batch of records the filter dropped, without events.
            spare.push_back(std::move(window.front()));
            window.pop_front();
            current = nullptr;
        }
    }

    /// Hands out the next item of the current batch: its events (an event of
    /// the capture stream, or those a record's decoding reported), then the
    /// record unless the filter dropped it. False at the batch's end.
    bool deliver() {
        while (at < current->count) {
            const Batch::Out& out = current->outs[at];
            if (sub < out.eventCount) {
                currentItem = &current->items[at];
                currentOut = &out;
                currentEvent = current->event(out.firstEvent + sub);
                ++sub;
                --remaining;
                return true;
            }
            if (sub == out.eventCount && out.isRecord && out.produced) {
                currentItem = &current->items[at];
                currentOut = &out;
                recordNow = true;
                ++records;
                ++sub;
                --remaining;
                return true;
            }
            ++at;
            sub = 0;
        }
        return false;
    }

    /// See ParallelStream::moreLines().
    std::string_view moreLines(std::uint64_t& count) {
        count = 0;
        if (!recordNow || render) {
            return std::string_view();
        }
        const Batch& batch = *current;
        const std::size_t start = currentOut->renderedOffset + currentOut->renderedSize;
        std::size_t end = start;
        std::size_t last = at;
        for (std::size_t i = at + 1; i < batch.count; ++i) {
            const Batch::Out& out = batch.outs[i];
            if (!out.isRecord || out.eventCount != 0) {
                break;  // an event comes first
            }
            if (!out.produced) {
                continue;  // dropped by the filter: nothing to hand out
            }
            if (out.renderedOffset != end) {
                break;
            }
            end += out.renderedSize;
            last = i;
            ++count;
        }
        if (count == 0) {
            return std::string_view();
        }
        // The last of them is now the current item, handed out whole (its
        // events are none).
        at = last;
        sub = 1;
        remaining -= count;
        records += count;
        currentItem = &batch.items[last];
        currentOut = &batch.outs[last];
        return std::string_view(batch.lines.data() + start, end - start);
    }

    CaptureStream::Impl& core;
    const detail::DecodeSettings saved;  // the capture stream's own settings
    Render render;
    detail::DecodeSettings settings;
    const std::size_t limit;

    std::mutex mutex;
    std::condition_variable wake;      // workers: a batch was queued, or quit
    std::condition_variable finished;  // reader: a batch is done
    std::deque<Batch*> queued;         // guarded by mutex
    bool quit = false;                 // guarded by mutex
    std::vector<std::thread> workers;
    // The reading thread's decoder, for the batches it renders itself, and
    // the source thread's, for those it renders while it waits for room.
    std::unique_ptr<WorkerDecoder> readerState;
    std::unique_ptr<WorkerDecoder> helperState;

    // The reading thread's own.
    std::deque<std::unique_ptr<Batch>> window;  // handed to the workers, in order
    std::vector<std::unique_ptr<Batch>> spare;
    bool ended = false;
    Batch* current = nullptr;
    std::size_t at = 0;   // the item of the current batch handed out next
    std::size_t sub = 0;  // of the item: its events handed out so far
    // Items of the current batch still to hand out: the batch, whose memory
    // holds the renderings, is left alone until the call after its last.
    std::size_t remaining = 0;
    const Batch::Item* currentItem = nullptr;
    const Batch::Out* currentOut = nullptr;
    bool recordNow = false;  // the current item is a record (not its event)
    Event currentEvent;
    std::uint64_t records = 0;
};

ParallelStream::ParallelStream(CaptureStream& stream, unsigned jobs, Render render)
    : impl_(std::make_unique<Impl>(stream, jobs, std::move(render))) {}

ParallelStream::~ParallelStream() = default;

bool ParallelStream::next() {
    return impl_->next();
}

bool ParallelStream::isRecord() const {
    return impl_->recordNow;
}

std::string_view ParallelStream::rendered() const {
    if (!isRecord()) {
        return std::string_view();
    }
    const Batch& batch = *impl_->current;
    const char* base = impl_->render ? batch.rendered.data() : batch.lines.data();
    return std::string_view(base + impl_->currentOut->renderedOffset,
                            impl_->currentOut->renderedSize);
}

std::string_view ParallelStream::moreLines(std::uint64_t& count) {
    return impl_->moreLines(count);
}

bool ParallelStream::runEnds() const {
    return impl_->currentItem != nullptr && impl_->remaining == 0;
}

const ParallelStream::RecordHeaders* ParallelStream::headers() const {
    return impl_->recordNow ? &impl_->currentItem->headers : nullptr;
}

const Event* ParallelStream::event() const {
    return impl_->currentItem != nullptr && !impl_->recordNow ? &impl_->currentEvent : nullptr;
}

std::uint64_t ParallelStream::records() const {
    return impl_->records;
}

}  // namespace Tav
