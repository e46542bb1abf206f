// See flusher.h.
#include "flusher.h"

#include <utility>

#include "event_recovery.h"
#include "kavrin_utils.h"
#include "log.h"
#include "shared_objects.h"

namespace kvservice {
namespace {

using kvadmin::Exit;
using kvadmin::RecoveryReport;
using kvadmin::TemporaryFate;
using kvadmin::TemporaryFile;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kRecoveryPeriod{60};
constexpr std::chrono::seconds kLate{30};

// One line for each temporary file that was dealt with.
Json recovered(const std::string& folder) {
    Json lines = Json::array();
    const RecoveryReport report = kvadmin::recover_events(folder, {});
    if (!report.error.empty()) lines.push_back(folder + ": " + report.error);
    for (const TemporaryFile& file : report.files) {
        if (file.fate == TemporaryFate::kYoung || file.fate == TemporaryFate::kOpen) continue;
        lines.push_back(fmt::format("{}/{}: {}{}{}", folder, file.name,
                                    kvadmin::fate_name(file.fate), file.other.empty() ? "" : ", ",
                                    file.other));
    }
    return lines;
}

Json flush_and_recover(const std::string& folder, bool flush, bool recover) {
    const std::size_t records = flush ? staging_fill().records : 0;
    if (records != 0 && flush_staging_buffer() != 1)
        kvadmin::fail(Exit::kFailure,
                      "the staging buffer with {} events cannot be flushed; is {} there, and room "
                      "on its disk? The system log says more",
                      records, folder);
    return {{"records", records}, {"recovered", recover ? recovered(folder) : Json::array()}};
}

}  // namespace

void Flusher::set(std::chrono::seconds period, std::string folder) {
    folder_ = std::move(folder);
    timer_.reset();
    by_itself_ = period.count() != 0;
    timer_ = loop_.every(by_itself_ ? period : kRecoveryPeriod, [this] { tick(); });
}

void Flusher::flush(OnEnd on_end) {
    wanted_.push_back(std::move(on_end));
    if (worker_ == nullptr) begin(false);
}

void Flusher::tick() {
    if (worker_ != nullptr) {
        if (told_late_ || Clock::now() - began_ < kLate) return;
        log_error(
            "a flush of the staging buffer takes longer than {} seconds; 'kavrinctl doctor' "
            "tells who holds its semaphore",
            kLate.count());
        told_late_ = true;
        return;
    }
    const bool recover = Clock::now() - recovered_ >= kRecoveryPeriod;
    if (recover || (by_itself_ && staging_fill().records != 0)) begin(recover);
}

void Flusher::begin(bool recover) {
    waiting_ = std::exchange(wanted_, {});
    const bool flush = by_itself_ || !waiting_.empty();
    began_ = Clock::now();
    if (recover) recovered_ = began_;
    try {
        worker_ = std::make_unique<Worker>(
            loop_, "the flush of the staging buffer",
            [folder = folder_, flush, recover] {
                return flush_and_recover(folder, flush, recover);
            },
            [this](const WorkResult& result) { end(result); });
    } catch (const kvadmin::CommandError& error) {
        WorkResult result;
        result.error = error.message;
        end(result);
    }
}

void Flusher::end(const WorkResult& result) {
    worker_.reset();
    told_late_ = false;
    if (result.done) {
        const std::uint64_t records = result.value.value("records", std::uint64_t{0});
        if (records != 0) ++counters_.flushes;
        counters_.events += records;
        for (const Json& line : result.value.value("recovered", Json::array()))
            log_warning("{}", line.get<std::string>());
    } else {
        ++counters_.failures;
        log_error("{}", result.error);
    }
    for (const OnEnd& on_end : std::exchange(waiting_, {})) on_end(result);
    if (!wanted_.empty())
        next_ = loop_.after({}, [this] {
            if (worker_ == nullptr) begin(false);
        });
}

}  // namespace kvservice
