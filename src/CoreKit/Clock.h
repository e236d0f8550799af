#pragma once

namespace tavrick {

// Wall time is seconds since 1970; monotonic time only ever moves forward and is for intervals.
class Clock {
public:
    virtual ~Clock() = default;
    virtual double now() const = 0;
    virtual double monotonic() const = 0;
};

class SystemClock final : public Clock {
public:
    double now() const override;
    double monotonic() const override;
    static SystemClock& shared();
};

} // namespace tavrick
