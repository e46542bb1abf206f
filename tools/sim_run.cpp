// See sim_run.h.
#include "sim_run.h"

#include <fmt/format.h>

#include <utility>

#include "event_text.h"
#include "failure.h"
#include "utf8.h"

namespace kvadmin {
namespace {

std::string share_of(const SimScript& script, const SimStage& stage) {
    for (const SimStatement& statement : script.statements)
        if (statement.kind == SimKind::kShare) return statement.name;
    return stage.share();
}

}  // namespace

SimRun::SimRun(const SimScript& script, std::string file, const SimSettings& settings)
    : script_(script), file_(std::move(file)), stage_(settings), printer_({}, false) {}

bool SimRun::run(bool times) {
    printer_ = SimPrinter(share_of(script_, stage_), times);
    for (std::size_t i = 0; i < script_.statements.size(); ++i) step(i);
    return sound_;
}

void SimRun::step(std::size_t index) {
    const SimStatement& statement = script_.statements[index];
    switch (statement.kind) {
        case SimKind::kAs:
            take_turn(statement);
            break;
        case SimKind::kExpect:
            expect(statement);
            break;
        case SimKind::kEvents:
            print_text_line("events");
            SimEvents::print_pending(stage_.staging_folder(), printer_);
            break;
        case SimKind::kSignal:
        case SimKind::kDisconnect:
            operate(index);
            break;
        default:
            if (is_sim_operation(statement.kind)) {
                operate(index);
                break;
            }
            // What changes under connected users is part of the story.
            if (begun_) print_text_line(printable(statement.text));
            if (statement.kind == SimKind::kAudit) audit_ = statement.choice == "on";
            stage_.prepare(statement);
    }
}

void SimRun::take_turn(const SimStatement& statement) {
    begun_ = true;
    user_ = statement.name;
    auto& process = processes_[user_];
    if (process != nullptr && process->alive()) {
        last_ = {};
        last_.verdict = SimOutcome::Verdict::kAllowed;
        return;
    }
    stage_.complete();
    const SimCaller caller = stage_.caller(user_);
    print_text_line(fmt::format("{} connects{}", printable(user_), audit_ ? ", audited" : ""));
    if (!caller.known) print_text_line("  no such account: the process runs as nobody");
    process = std::make_unique<SimProcess>(caller, stage_.share(), script_, audit_);
    last_ = process->connected();
    events_.look(process->pid());
    printer_.print(last_);
    if (!last_.identity.empty()) sound_ = false;
    if (last_.verdict != SimOutcome::Verdict::kAllowed) process.reset();
}

SimProcess* SimRun::current() {
    const auto found = processes_.find(user_);
    if (found == processes_.end() || found->second == nullptr || !found->second->alive())
        return nullptr;
    return found->second.get();
}

void SimRun::operate(std::size_t index) {
    const SimStatement& statement = script_.statements[index];
    print_text_line(fmt::format("{}: {}", printable(user_), printable(statement.text)));
    SimProcess* const process = current();
    if (process == nullptr) {
        last_ = {};
        print_text_line("  not done: this user's process is gone");
        return;
    }
    events_.look(process->pid());  // others may have flushed since
    last_ = statement.kind == SimKind::kSignal ? process->signal() : process->perform(index);
    printer_.print(last_);
    events_.print_new(process->pid(), printer_);
    if (!last_.identity.empty()) sound_ = false;
    if (statement.kind == SimKind::kDisconnect || !process->alive()) processes_.erase(user_);
}

void SimRun::expect(const SimStatement& statement) {
    std::string wanted = statement.choice;
    const std::string got = verdict_words(last_);
    if (!statement.second.empty()) wanted += " " + statement.second;
    if (got == wanted || (wanted == "refused" && got.starts_with("refused "))) return;
    sound_ = false;
    print_text_line(fmt::format("  EXPECTED: {}, and it is: {} ({}:{})", wanted, got,
                                printable(file_), statement.line));
}

}  // namespace kvadmin
