// Guarded<T>: a value together with the lock that guards it, for a property
// that several threads read and write and that has no tie to any other field;
// and copyUnder / storeUnder for the plain reads and writes of a field that
// shares its lock with others.
//
//   Guarded<std::string> name_{"untitled"};
//   name_.set("queue");
//   std::string current = name_.get();
//   name_.with([](std::string& value) { value += " (paused)"; });
//
// Contract: each call is atomic (no other call on the value in between); two
// calls together are not, so a change that depends on the old value is one
// `with`. `f` runs under the lock and must not call back into the same
// Guarded; the value `set` replaces is released after the lock is let go.
#pragma once

#include <mutex>
#include <utility>

namespace platform {

// For a field that shares its mutex with other fields (which is why it is
// not a Guarded of its own): a copy of it, and a new value for it, each
// under that mutex. The value replaced is released after the lock, so a
// destructor that reads the same field cannot deadlock.
template <typename T>
T copyUnder(std::mutex& mutex, const T& field)
{
    std::lock_guard lock(mutex);
    return field;
}

template <typename T>
void storeUnder(std::mutex& mutex, T& field, T value)
{
    {
        std::lock_guard lock(mutex);
        using std::swap;
        swap(field, value);
    }
    // `value` now holds the previous one, released here, outside the lock.
}

template <typename T>
class Guarded {
public:
    Guarded() = default;
    explicit Guarded(T value) : value_(std::move(value)) {}
    Guarded(const Guarded&) = delete;
    Guarded& operator=(const Guarded&) = delete;

    T get() const { return copyUnder(mutex_, value_); }
    void set(T value) { storeUnder(mutex_, value_, std::move(value)); }

    // The result is returned by value: a reference into the guarded value
    // would outlive the lock.
    template <typename F>
    auto with(F&& f)
    {
        std::lock_guard lock(mutex_);
        return std::forward<F>(f)(value_);
    }

    template <typename F>
    auto with(F&& f) const
    {
        std::lock_guard lock(mutex_);
        return std::forward<F>(f)(std::as_const(value_));
    }

private:
    mutable std::mutex mutex_;  // guards `value_`
    T value_{};
};

}  // namespace platform
