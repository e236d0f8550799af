#include "FanHelper/FanHelperCore.h"

#include "Platform/Simulated/SimulatedSMC.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <set>

namespace tavrick {

namespace Reply = FanHelperReply;

FanHelperCore::FanHelperCore(Environment environment) : env_(std::move(environment)) {}

void FanHelperCore::note(const std::string& line) const {
    if (env_.log) env_.log(line);
}

bool FanHelperCore::readFans() {
    try {
        if (!env_.reader.isOpen()) env_.reader.open();
        layout_ = FanKeys::discover(env_.reader);
        fans_ = FanKeys::readFans(env_.reader, layout_);
        return true;
    } catch (const SMCError& error) {
        note(std::string("could not read the fans: ") + error.what());
        env_.reader.close();
        return false;
    }
}

void FanHelperCore::readTemperature(double now) {
    std::vector<double> celsius;
    for (const auto& t : env_.sensors.read()) celsius.push_back(t.celsius);
    thermal_ = filter_.assess(celsius, now);
    curve_.observe(thermal_.hottest);
}

std::vector<int> FanHelperCore::manualFans() const {
    std::vector<int> out;
    for (const auto& f : fans_) {
        if (f.mode == 1) out.push_back(f.index);
    }
    return out;
}

std::optional<std::vector<int>> FanHelperCore::journalListing() const {
    if (journalUnreadable_) return std::nullopt;
    auto entry = env_.journal.read();
    return entry ? entry->fans : std::vector<int>{};
}

void FanHelperCore::write(SMCReader& reader, const FanLayout& layout, const FanWrite& w) {
    reader.withConnection([&](SMCDriver& driver, std::uint32_t connection) {
        SMCParamStruct input{};
        std::string key;
        std::vector<std::uint8_t> bytes;
        SMCExpectation expected;
        if (auto* t = std::get_if<FanWrite::Target>(&w.value)) {
            key = FanKeys::target(t->fan);
            bytes = SMCValue::encodeFloat(static_cast<float>(t->target.rpm));
            expected = FanKeys::speedType();
        } else {
            auto& m = std::get<FanWrite::Mode>(w.value);
            key = FanKeys::mode(m.fan, layout.modeKey.value_or(FanLayout::ModeKey::lowercase));
            bytes = SMCValue::encode(static_cast<std::uint8_t>(m.mode));
            expected = FanKeys::modeType();
        }
        const auto packed = *FourCC::pack(key);
        // The key must be what we believe before anything is written to it.
        auto info = reader.lockedKeyInfo(packed);
        if (!expected.matches(info)) throw SMCError::unexpectedType(info.type);
        input.key = packed;
        input.keyInfoDataSize = static_cast<std::uint32_t>(bytes.size());
        input.data8 = SimulatedSMC::writeKeyCommand;
        std::memcpy(input.bytes, bytes.data(), bytes.size());
        SMCParamStruct output{};
        if (auto error = SMCError::fromKernReturn(driver.callStruct(connection, smcSelector, input, output))) throw *error;
        if (auto error = SMCError::fromResult(output.result)) throw *error;
    });
}

bool FanHelperCore::write(const FanWrite& w) {
    try {
        write(env_.reader, layout_, w);
        return true;
    } catch (const SMCError& error) {
        note(std::string("a write to the fan controller failed: ") + error.what());
        return false;
    }
}

std::vector<int> FanHelperCore::emergencyHandBack(SMCReader& reader, const FanJournal& journal) {
    std::vector<int> wrote;
    try {
        reader.open();
        auto layout = FanKeys::discover(reader);
        auto fans = FanKeys::readFans(reader, layout);
        auto entry = journal.read();
        for (const auto& f : fans) {
            const bool ours = entry ? std::find(entry->fans.begin(), entry->fans.end(), f.index) != entry->fans.end() : f.mode == 1;
            if (!ours) continue;
            // No temperature can be trusted here, so the fan is left at its maximum.
            if (auto limits = FanLimits::make(f)) {
                try {
                    write(reader, layout, FanWrite::target(f.index, FanTarget::maximum(*limits)));
                } catch (const SMCError&) {
                }
            }
            try {
                write(reader, layout, FanWrite::mode(f.index, FanMode::automatic));
                wrote.push_back(f.index);
            } catch (const SMCError&) {
            }
        }
    } catch (const SMCError&) {
    }
    return wrote;
}

void FanHelperCore::start(double now, double wall) {
    lastBusy_ = now;
    readFans();
    readTemperature(now);
    bool unreadable = false;
    auto entry = env_.journal.read(&unreadable);
    journalUnreadable_ = unreadable;
    if (entry || unreadable) {
        // An earlier run ended without handing back. Until it is done, nothing new is taken.
        recoveredOrphan_ = true;
        reclaiming_ = true;
        note(unreadable ? "found a journal that could not be read; handing back every fan in manual mode"
                        : "found a journal from an earlier run; handing those fans back");
        recoverOrphan(now, wall);
    }
}

void FanHelperCore::recoverOrphan(double now, double wall) {
    std::vector<int> ours;
    if (journalUnreadable_) {
        ours = manualFans();
    } else if (auto entry = env_.journal.read()) {
        std::vector<std::optional<int>> modes;
        for (const auto& f : fans_) modes.push_back(f.mode);
        ours = FanPolicy::handBackTargets(std::set<int>(entry->fans.begin(), entry->fans.end()), modes);
        ours.erase(std::remove_if(ours.begin(), ours.end(), [&](int fan) { return fan >= static_cast<int>(fans_.size()); }),
                   ours.end());
    }
    if (ours.empty() || handBack(ours, FanReason::reclaiming, now, wall)) {
        env_.journal.remove();
        journalUnreadable_ = false;
        reclaiming_ = false;
        note("the fans an earlier run left are macOS's again");
    }
}

std::optional<FanReason> FanHelperCore::takeoverRefusal() const {
    if (reclaiming_) return FanReason::reclaiming;
    if (safeHold_) return FanReason::safeHold;
    if (layout_.isFanless()) return FanReason::fanless;
    if (layout_.hasFtst) return FanReason::unsupported;
    for (const auto& f : fans_) {
        if (!FanLimits::make(f)) return FanReason::invalidLimits;
    }
    if (!controlling_) {
        auto listing = journalListing();
        for (int fan : manualFans()) {
            if (!listing || std::find(listing->begin(), listing->end(), fan) == listing->end()) return FanReason::anotherApp;
        }
    }
    return TemperatureGuard::refusal(thermal_);
}

void FanHelperCore::takeOver(double now, double wall) {
    auto request = ownership_.effective();
    if (!request) return;
    if (auto refusal = takeoverRefusal()) {
        reason_ = refusal;
        note("did not take the fans — " + std::string(rawValue(*refusal)));
        ownership_ = {};
        return;
    }
    std::vector<int> all;
    for (const auto& f : fans_) all.push_back(f.index);
    std::string error;
    // The journal comes first: a crash after this line still knows what to give back.
    if (!env_.journal.write({all, wall}, &error)) {
        reason_ = FanReason::journalFailed;
        note("left the fans alone — the journal could not be written: " + error);
        ownership_ = {};
        return;
    }
    held_.clear();
    std::vector<FanTarget> targets;
    const double die = thermal_.hottest.value_or(NAN);
    for (const auto& f : fans_) {
        auto limits = *FanLimits::make(f);
        TakeoverDecay decay(f.actual, f.target, limits, now);
        auto target = FanPolicy::boostTarget(*request, die, curve_, ThermalPressure::nominal, decay.rpm, limits);
        targets.push_back(target);
        held_.emplace(f.index, Held{limits, decay, TargetSmoother(target, now), ReadBackCheck(now, limits, target)});
        lastTargets_[f.index] = target;
    }
    guard_.emplace(thermal_);
    controlling_ = true;
    recoveredOrphan_ = false;
    reason_.reset();
    lastRelease_.reset();
    lastModeSwitch_ = now;
    for (const auto& w : FanPolicy::takeoverPlan(targets)) {
        if (!write(w)) {
            end(FanReason::smcFailed, now, wall);
            return;
        }
    }
    note("took the fans at level " + std::to_string(request->level) + (request->isMax ? " (max)" : ""));
}

void FanHelperCore::control(double now, double wall) {
    if (auto reason = guard_->assess(thermal_)) {
        end(reason, now, wall);
        return;
    }
    auto request = ownership_.effective();
    if (!request) {
        end(std::nullopt, now, wall);
        return;
    }
    for (const auto& reading : fans_) {
        auto it = held_.find(reading.index);
        if (it == held_.end()) continue;
        auto& held = it->second;
        if (auto reason = held.check.assess(reading, now)) {
            end(reason, now, wall);
            return;
        }
        if (held.check.mustReassert) {
            note("macOS took fan " + std::to_string(reading.index) + " back; asking for it again");
            for (const auto& w : FanPolicy::reassertPlan(reading.index, held.smoother.current)) {
                if (!write(w)) {
                    end(FanReason::smcFailed, now, wall);
                    return;
                }
            }
        }
        const double die = thermal_.hottest.value_or(NAN);
        const double floor = held.limits.floor(*request);
        held.decay.advance(thermal_.hottest, floor, now);
        auto wanted = FanPolicy::boostTarget(*request, die, curve_, ThermalPressure::nominal, held.decay.rpm, held.limits);
        if (auto next = held.smoother.next(wanted, now)) {
            if (!write(FanWrite::target(reading.index, *next))) {
                end(FanReason::smcFailed, now, wall);
                return;
            }
            held.check.wrote(next->rpm);
            lastTargets_[reading.index] = *next;
        }
    }
}

bool FanHelperCore::handBack(const std::vector<int>& fans, std::optional<FanReason> reason, double now, double wall) {
    FanRelease record;
    record.reason = reason;
    record.at = wall;
    record.fans = fans;
    for (const auto& [fan, held] : held_) record.reassertions += held.check.reassertions();
    bool done = false;
    for (int attempt = 0; attempt < FanPolicy::releaseAttempts && !done; ++attempt) {
        if (attempt > 0 && env_.pause) env_.pause(FanPolicy::releaseRetryGap);
        std::vector<FanTarget> targets;
        std::vector<FanWrite> plan;
        // Parked at what the temperature calls for, never off.
        for (int fan : fans) {
            const auto* reading = fan < static_cast<int>(fans_.size()) ? &fans_[static_cast<std::size_t>(fan)] : nullptr;
            auto limits = reading ? FanLimits::make(*reading) : std::nullopt;
            if (!limits) continue;
            auto last = lastTargets_.count(fan) ? std::optional<FanTarget>(lastTargets_[fan]) : std::nullopt;
            auto park = FanPolicy::parkTarget(thermal_.hottest, curve_, last, *limits);
            plan.push_back(FanWrite::target(fan, park));
        }
        for (int fan : fans) plan.push_back(FanWrite::mode(fan, FanMode::automatic));
        for (const auto& w : plan) write(w);
        readFans();
        std::vector<std::optional<int>> modes;
        for (int fan : fans) modes.push_back(fan < static_cast<int>(fans_.size()) ? fans_[static_cast<std::size_t>(fan)].mode : std::nullopt);
        done = FanPolicy::isHandedBack(modes) || fans.empty();
    }
    for (int fan : fans) {
        if (fan >= static_cast<int>(fans_.size())) continue;
        const auto& f = fans_[static_cast<std::size_t>(fan)];
        record.readings.push_back({fan, f.target, f.actual, f.mode});
    }
    lastRelease_ = record;
    lastModeSwitch_ = now;
    return done;
}

void FanHelperCore::end(std::optional<FanReason> reason, double now, double wall) {
    std::vector<int> fans;
    for (const auto& [fan, held] : held_) fans.push_back(fan);
    const bool ok = handBack(fans, reason, now, wall);
    controlling_ = false;
    held_.clear();
    guard_.reset();
    reason_ = reason;
    // A fault ends every client's boost; asking again is theirs to decide.
    if (reason && *reason != FanReason::sleeping) ownership_ = {};
    if (ok) {
        safeHold_ = false;
        std::vector<std::optional<int>> modes;
        for (const auto& f : fans_) modes.push_back(f.mode);
        if (auto listing = journalListing(); listing && FanPolicy::journalMayGo(*listing, modes)) env_.journal.remove();
        note("handed the fans back — " + lastRelease_->reasonName() + "; " + lastRelease_->readingsSummary());
    } else {
        safeHold_ = true;
        lastSafeHoldTry_ = now;
        note("could not hand the fans back; holding them on the safety curve — " + lastRelease_->readingsSummary());
    }
}

void FanHelperCore::tick(double now, double wall) {
    const bool fansRead = readFans();
    readTemperature(now);
    if (controlling_ || safeHold_ || reclaiming_ || !ownership_.isEmpty()) lastBusy_ = now;
    if (!fansRead) {
        if (controlling_) end(FanReason::smcFailed, now, wall);
        return;
    }
    if (reclaiming_) recoverOrphan(now, wall);
    if (safeHold_) {
        // Keep the fans on the curve, and try again every so often.
        for (const auto& f : fans_) {
            if (f.mode != 1) continue;
            if (auto limits = FanLimits::make(f)) {
                write(FanWrite::target(f.index, FanPolicy::parkTarget(thermal_.hottest, curve_, std::nullopt, *limits)));
            }
        }
        if (!lastSafeHoldTry_ || now - *lastSafeHoldTry_ >= FanPolicy::safeHoldRetry) {
            lastSafeHoldTry_ = now;
            auto listing = journalListing();
            std::vector<int> ours;
            for (int fan : manualFans()) {
                if (!listing || std::find(listing->begin(), listing->end(), fan) != listing->end()) ours.push_back(fan);
            }
            if (handBack(ours, FanReason::safeHold, now, wall)) {
                safeHold_ = false;
                env_.journal.remove();
                note("the fans are macOS's again after the safe hold");
            }
        }
        return;
    }
    if (controlling_) {
        control(now, wall);
    } else if (ownership_.effective()) {
        // After a wake the settle decides; otherwise the spacing between changes of hands.
        const bool due = takeAgainAt_ ? now >= *takeAgainAt_
                                      : (!lastModeSwitch_ || now - *lastModeSwitch_ >= FanPolicy::modeSwitchSpacing);
        if (due) {
            takeAgainAt_.reset();
            takeOver(now, wall);
        }
    }
}

std::string FanHelperCore::handle(ClientID client, const FanWire::Call& call, double now, double wall) {
    lastBusy_ = now;
    switch (call.call) {
    case FanHelperCall::hello: return Reply::encode(Reply::Hello{Reply::protocolVersion, env_.cdhash, env_.build});
    case FanHelperCall::status: readFans(); return Reply::encode(status());
    case FanHelperCall::apply: {
        readFans();
        auto request = FanRequest::make(call.level, call.max);
        if (!request) return Reply::encode(Reply::ApplyResult{false, FanReason::invalidRequest, status()});
        if (auto refusal = takeoverRefusal()) {
            reason_ = refusal;
            return Reply::encode(Reply::ApplyResult{false, refusal, status()});
        }
        auto change = ownership_.set(*request, client);
        reason_.reset();
        if (!controlling_ && change.kind == FanOwnership<ClientID>::Change::Kind::apply &&
            (!lastModeSwitch_ || now - *lastModeSwitch_ >= FanPolicy::modeSwitchSpacing)) {
            takeOver(now, wall);
            readFans();
        }
        return Reply::encode(Reply::ApplyResult{controlling_ || !reason_, reason_, status()});
    }
    case FanHelperCall::handBack: {
        if (ownership_.remove(client).kind == FanOwnership<ClientID>::Change::Kind::release && controlling_) {
            end(std::nullopt, now, wall);
        }
        readFans();
        return Reply::encode(status());
    }
    case FanHelperCall::releaseFans:
    case FanHelperCall::releaseUnrecordedFans: {
        readFans();
        const bool anyway = call.call == FanHelperCall::releaseUnrecordedFans;
        auto listing = journalListing();
        if (controlling_) {
            // The user asked for the fans back: every client's boost ends here.
            ownership_ = {};
            end(std::nullopt, now, wall);
        }
        auto manual = manualFans();
        auto plan = anyway ? FanPolicy::releaseUnrecorded(manual, listing, thermal_.hottest) : FanPolicy::release(manual, listing);
        Reply::ReleaseResult result;
        result.reason = plan.refusal;
        if (!plan.handBack.empty()) {
            result.released = handBack(plan.handBack, std::nullopt, now, wall);
            result.fans = plan.handBack;
            if (result.released) env_.journal.remove();
        } else {
            result.released = !plan.refusal;
        }
        if (anyway) result.unrecorded = plan.unrecorded;
        result.status = status();
        return Reply::encode(result);
    }
    case FanHelperCall::exitForUpdate: {
        // A helper that holds the fans does not step aside; the answer says so.
        if (!controlling_ && !safeHold_ && !reclaiming_) wantsExit_ = true;
        return Reply::encode(status());
    }
    }
    return Reply::encode(status());
}

void FanHelperCore::clientLeft(ClientID client, double now, double wall) {
    if (ownership_.remove(client).kind == FanOwnership<ClientID>::Change::Kind::release && controlling_) {
        note("the last client went; handing the fans back");
        end(std::nullopt, now, wall);
    }
}

void FanHelperCore::woke(double now, double wall) {
    if (controlling_) {
        note("the machine slept; the fans went back to macOS until it settles");
        end(FanReason::sleeping, now, wall);
    }
    takeAgainAt_ = now + FanPolicy::wakeSettle;
}

void FanHelperCore::shutDown(double now, double wall) {
    ownership_ = {};
    if (controlling_) end(FanReason::exiting, now, wall);
}

bool FanHelperCore::isIdle(double now, int connectedClients) const {
    return connectedClients == 0 && !controlling_ && !safeHold_ && !reclaiming_ && now - lastBusy_ >= FanPolicy::idleExitAfter;
}

Reply::Status FanHelperCore::status() const {
    Reply::Status s;
    s.safeHold = safeHold_;
    s.controlling = controlling_;
    s.state = safeHold_ ? Reply::Status::State::safeHold
                        : (controlling_ ? Reply::Status::State::boosting : Reply::Status::State::idle);
    s.request = ownership_.effective();
    s.fans = fans_;
    s.hottestDie = thermal_.hottest;
    s.sensorCount = thermal_.validCount;
    s.reason = reason_;
    s.recoveredOrphan = recoveredOrphan_;
    s.clients = static_cast<int>(ownership_.count());
    s.setByTavrick = std::vector<int>{};
    if (!journalUnreadable_) {
        if (auto entry = env_.journal.read()) {
            for (int fan : entry->fans) {
                if (fan < static_cast<int>(fans_.size()) && fans_[static_cast<std::size_t>(fan)].mode == 1) s.setByTavrick->push_back(fan);
            }
        }
    }
    s.lastRelease = lastRelease_;
    return s;
}

} // namespace tavrick
