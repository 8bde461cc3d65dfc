// One whole cycle with the service.
#include <VelkorSync/RunLoop.h>

#include <iostream>

#include "examples/notes/Command.h"
#include "examples/notes/Cycle.h"
#include "examples/notes/Dump.h"
#include "examples/notes/Progress.h"

namespace notes {

using namespace velkor;

std::optional<NS::Error> cycleError(const VLKSyncController& controller) {
    if (controller.cycleReport().lockError) return controller.cycleReport().lockError;
    return controller.lastError();
}

std::string cycleLine(const VLKSyncController& controller) {
    const auto& report = controller.cycleReport();
    return "synced: " + std::to_string(report.sent) + " sent, " + std::to_string(report.received) + " received";
}

bool cycleIsOver(const VLKSyncController& controller) {
    const auto& report = controller.cycleReport();
    return !controller.syncInProgress() && (report.lockError || report.unlockAnswered);
}

std::string progressLine(const VLKSyncController& controller) {
    return std::to_string(static_cast<int>(controller.percentSyncComplete() * 100)) + " % " + controller.currentOperation();
}

namespace {

void printResult(const VLKSyncController& controller, const std::optional<NS::Error>& error) {
    NS::Value failure = NS::Null{};
    if (error) {
        failure =
            NS::Dictionary{{"domain", error->domain()}, {"code", error->code()}, {"description", error->localizedDescription()}};
    }
    const auto& report = controller.cycleReport();
    std::cout << jsonText(
                     NS::Dictionary{{"ok", !error}, {"sent", report.sent}, {"received", report.received}, {"error", failure}})
              << '\n';
}

void sync(Installation& installation, const Arguments&) {
    installation.useAccount();
    auto& controller = installation.controller();
    controller.setLastError(std::nullopt);
    Progress progress(installation.options().quiet);
    auto observation = controller.addObserverForKeyPath(
        "currentOperation", [&](NS::Observable&, const NS::Dictionary&) { progress.show(progressLine(controller)); });
    bool ended = false;
    controller.forceSyncWithContinuation([&ended] { ended = true; });
    NS::RunLoop::main().runUntil([&] { return ended && cycleIsOver(controller); }, -1);
    controller.removeObserverWithBlockToken(observation);
    progress.clear();
    controller.save();

    auto error = cycleError(controller);
    if (installation.options().json) {
        printResult(controller, error);
    } else if (!error) {
        std::cout << cycleLine(controller) << '\n';
    }
    if (error) throw CommandError("sync failed: " + error->localizedDescription());
}

}  // namespace

std::vector<Command> syncCommands() {
    return {{"sync", "", "sends what changed here and fetches what changed elsewhere", {}, 0, 0, sync}};
}

}  // namespace notes
