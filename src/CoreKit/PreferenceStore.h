#pragma once

#include <concepts>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tavrick {

// One value of a user defaults domain: the property-list types and nothing else. The type is part
// of the value, so `true`, `1`, `1.0` and `"YES"` are four different values, and bytes are never
// mistaken for text.
class PreferenceValue {
public:
    using Data = std::vector<std::uint8_t>;
    using Array = std::vector<PreferenceValue>;
    using Dictionary = std::map<std::string, PreferenceValue>;

    enum class Kind { boolean, integer, real, string, data, array, dictionary };

    PreferenceValue(bool value) : storage_(value) {}
    template <std::integral I>
        requires(!std::same_as<I, bool>)
    PreferenceValue(I value) : storage_(static_cast<std::int64_t>(value)) {}
    PreferenceValue(double value) : storage_(value) {}
    PreferenceValue(std::string value) : storage_(std::move(value)) {}
    PreferenceValue(std::string_view value) : storage_(std::string(value)) {}
    // A literal is text, never a bool.
    PreferenceValue(const char* value) : storage_(std::string(value)) {}
    PreferenceValue(Data value) : storage_(std::move(value)) {}
    PreferenceValue(Array value) : storage_(std::move(value)) {}
    PreferenceValue(Dictionary value) : storage_(std::move(value)) {}

    // Bytes given as a string: the value is data, not text.
    static PreferenceValue data(std::string_view bytes);

    Kind kind() const { return static_cast<Kind>(storage_.index()); }

    // Each answers only for its own type; no conversion happens here.
    const bool* asBool() const { return std::get_if<bool>(&storage_); }
    const std::int64_t* asInteger() const { return std::get_if<std::int64_t>(&storage_); }
    const double* asReal() const { return std::get_if<double>(&storage_); }
    const std::string* asString() const { return std::get_if<std::string>(&storage_); }
    const Data* asData() const { return std::get_if<Data>(&storage_); }
    const Array* asArray() const { return std::get_if<Array>(&storage_); }
    const Dictionary* asDictionary() const { return std::get_if<Dictionary>(&storage_); }

    // A short description for log lines and test failures, never the content of text or bytes:
    // "true", "42", "4.5", "text of 3 bytes", "data of 12 bytes", "array of 2", "dictionary of 1".
    std::string summary() const;

    friend bool operator==(const PreferenceValue&, const PreferenceValue&) = default;

private:
    std::variant<bool, std::int64_t, double, std::string, Data, Array, Dictionary> storage_;
};

const char* kindName(PreferenceValue::Kind kind);

// A user defaults domain: keys to typed values, where an absent key is absent (not a default).
// Implementations are safe to use from any thread.
class PreferenceStore {
public:
    virtual ~PreferenceStore() = default;

    virtual std::optional<PreferenceValue> object(const std::string& key) const = 0;
    // False when the value could not be kept durably; the store still answers with it until the
    // domain is read afresh.
    virtual bool set(const std::string& key, PreferenceValue value) = 0;
    // Removing an absent key succeeds and changes nothing.
    virtual bool remove(const std::string& key) = 0;
    // Sorted.
    virtual std::vector<std::string> allKeys() const = 0;

    virtual PreferenceValue::Dictionary dictionaryRepresentation() const;

    // Typed readers: a value of another type reads as absent, so the caller's default applies.
    std::optional<bool> boolean(const std::string& key) const;
    // An integer, or a real without a fraction that fits: a hand-edited "50.0" still counts.
    std::optional<std::int64_t> integer(const std::string& key) const;
    // A real, or an integer.
    std::optional<double> real(const std::string& key) const;
    std::optional<std::string> string(const std::string& key) const;
    std::optional<PreferenceValue::Data> data(const std::string& key) const;
    std::optional<PreferenceValue::Array> array(const std::string& key) const;
    std::optional<PreferenceValue::Dictionary> dictionary(const std::string& key) const;
};

// A domain held in memory only: for tests, and for a run that must not touch the disk. It counts
// the writes it was asked for, and can be told to refuse them the way a full disk would.
class InMemoryPreferenceStore final : public PreferenceStore {
public:
    InMemoryPreferenceStore() = default;
    explicit InMemoryPreferenceStore(PreferenceValue::Dictionary initial) : values_(std::move(initial)) {}

    std::optional<PreferenceValue> object(const std::string& key) const override;
    bool set(const std::string& key, PreferenceValue value) override;
    bool remove(const std::string& key) override;
    std::vector<std::string> allKeys() const override;
    PreferenceValue::Dictionary dictionaryRepresentation() const override;

    // Calls of `set` and `remove`, whatever they changed.
    std::size_t writeCount() const;
    // While on, `set` and `remove` report failure; like a real store, memory still changes.
    void setFailsWrites(bool fails);

private:
    mutable std::mutex mutex_;
    PreferenceValue::Dictionary values_;
    std::size_t writes_ = 0;
    bool failsWrites_ = false;
};

} // namespace tavrick
