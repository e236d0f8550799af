#pragma once

#include <functional>
#include <map>
#include <memory>
#include <utility>

namespace tavrick {

// Ends an observation when destroyed (or when `cancel` is called). Safe to outlive the
// observed value.
class Observation {
public:
    Observation() = default;
    explicit Observation(std::function<void()> cancel) : cancel_(std::move(cancel)) {}
    Observation(Observation&& other) noexcept : cancel_(std::exchange(other.cancel_, nullptr)) {}
    Observation& operator=(Observation&& other) noexcept {
        if (this != &other) {
            cancel();
            cancel_ = std::exchange(other.cancel_, nullptr);
        }
        return *this;
    }
    Observation(const Observation&) = delete;
    Observation& operator=(const Observation&) = delete;
    ~Observation() { cancel(); }
    void cancel() {
        if (auto c = std::exchange(cancel_, nullptr)) c();
    }

private:
    std::function<void()> cancel_;
};

// A value that tells its observers when it really changed, and only then. Confined to one
// thread (the main queue for the program's observable services).
template <class T>
class Observable {
public:
    using Observer = std::function<void(const T&)>;

    Observable() = default;
    explicit Observable(T initial) : value_(std::move(initial)) {}

    const T& get() const { return value_; }
    operator const T&() const { return value_; }

    // Returns true when the value changed and observers were told.
    bool set(T value) {
        if (value == value_) return false;
        value_ = std::move(value);
        // Observers may add or cancel observations while being told; work from a copy.
        auto snapshot = *observers_;
        for (auto& [id, observer] : snapshot) {
            if (observers_->count(id)) observer(value_);
        }
        return true;
    }

    // Observing does not change the value, so a read-only view can be observed.
    Observation observe(Observer observer) const {
        int id = nextId_++;
        observers_->emplace(id, std::move(observer));
        std::weak_ptr<std::map<int, Observer>> weak = observers_;
        return Observation([weak, id] {
            if (auto list = weak.lock()) list->erase(id);
        });
    }

private:
    T value_{};
    std::shared_ptr<std::map<int, Observer>> observers_ = std::make_shared<std::map<int, Observer>>();
    mutable int nextId_ = 0;
};

} // namespace tavrick
