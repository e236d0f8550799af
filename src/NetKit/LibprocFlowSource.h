#pragma once

#include "CoreKit/Dispatch.h"
#include "NetCore/Flow.h"
#include "NetCore/SocketTable.h"

#include <memory>
#include <mutex>
#include <unordered_map>

namespace tavrick {

// The polled source over the kernel's process and socket tables: no extension and no
// privilege, so it sees only this user's processes, and says so as its scope. Ticks run on its
// own serial queue; `onFlows` is called there.
class LibprocFlowSource final : public FlowSource, public std::enable_shared_from_this<LibprocFlowSource> {
public:
    static constexpr const char* queueLabel = "com.orvell.tavrick.flows.sockets";

    // `ownPID` is left out of every scan: the watcher does not watch itself.
    static std::shared_ptr<LibprocFlowSource> make(int seconds, std::shared_ptr<SocketTableReader> table,
                                                   Scheduler& scheduler, std::int32_t ownPID);
    ~LibprocFlowSource() override;

    void start() override;
    void stop() override;
    bool isRunning() const override;
    FlowScope scope() const override { return FlowScope::ownUserPolled(seconds_); }
    bool canBlock() const override { return false; }
    void setOnFlows(FlowsCallback callback) override;

    int seconds() const { return seconds_; }
    // One tick, on the calling thread.
    void sample();

private:
    LibprocFlowSource(int seconds, std::shared_ptr<SocketTableReader> table, Scheduler& scheduler, std::int32_t ownPID);

    const int seconds_;
    std::shared_ptr<SocketTableReader> table_;
    Scheduler& scheduler_;
    const std::int32_t ownPID_;
    std::shared_ptr<SerialQueue> queue_;

    // Guards the three below; never held during a scan or a callback.
    mutable std::mutex lock_;
    Cancellable timer_;
    std::unordered_map<FlowKey, Flow> known_;
    FlowsCallback onFlows_;
};

} // namespace tavrick
