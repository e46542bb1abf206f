// Runs a script: set-up statements on the stage, operations in the process of the user whose turn
// it is, and prints each with what became of it.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>

#include "sim_events.h"
#include "sim_process.h"
#include "sim_report.h"
#include "sim_script.h"
#include "sim_stage.h"

namespace kvadmin {

class SimRun {
public:
    SimRun(const SimScript& script, std::string file, const SimSettings& settings);

    // False when an expectation was not met, or a process was not who it had been. Times are
    // printed with `times` only.
    bool run(bool times);

private:
    void step(std::size_t index);
    void take_turn(const SimStatement& statement);
    void operate(std::size_t index);
    void expect(const SimStatement& statement);
    SimProcess* current();

    const SimScript& script_;
    std::string file_;
    SimStage stage_;
    SimPrinter printer_;
    SimEvents events_;
    std::map<std::string, std::unique_ptr<SimProcess>> processes_;
    std::string user_;
    bool audit_ = false;
    bool begun_ = false;
    bool sound_ = true;
    SimOutcome last_;
};

}  // namespace kvadmin
