#include "FanCore/SMC.h"

#include "FanCore/FanReading.h"

#include <cmath>
#include <cstdio>
#include <cstring>

namespace tavrick {

static_assert(sizeof(SMCParamStruct) == 80, "the SMC record is 80 bytes");

bool SMCLayout::isValid() {
    return size == expectedSize && keyInfoDataSizeOffset == 28 && resultOffset == 40 && data32Offset == 44 &&
           bytesOffset == 48;
}

std::string SMCLayout::summary() {
    char line[128];
    std::snprintf(line, sizeof line, "%zu bytes, keyInfo @%zu, result @%zu, data32 @%zu, bytes @%zu (%s)", size,
                  keyInfoDataSizeOffset, resultOffset, data32Offset, bytesOffset, isValid() ? "OK" : "CHANGED");
    return line;
}

namespace {
std::string textFor(SMCError::Kind kind, std::int64_t code, const std::string& type) {
    char buffer[96];
    switch (kind) {
    case SMCError::Kind::kernel:
        std::snprintf(buffer, sizeof buffer, "The SMC call failed (IOKit 0x%08X).", static_cast<unsigned>(code));
        return buffer;
    case SMCError::Kind::firmware:
        std::snprintf(buffer, sizeof buffer, "The SMC refused the call (result 0x%02X).", static_cast<unsigned>(code));
        return buffer;
    case SMCError::Kind::unexpectedType: return "The SMC key holds an unexpected type (" + type + ").";
    case SMCError::Kind::layoutChanged:
        return "This version of macOS talks to the SMC in an unexpected format, so fan readings are off.";
    case SMCError::Kind::serviceUnavailable: return "This Mac has no SMC that Tavrick can read.";
    case SMCError::Kind::notOpen: return "The SMC connection is not open.";
    case SMCError::Kind::invalidKey: return "An SMC key must be four characters.";
    case SMCError::Kind::notPrivileged: return "The SMC refused the call without administrator rights.";
    case SMCError::Kind::firmwareHoldingKey: return "The SMC firmware is holding this key.";
    case SMCError::Kind::keyNotFound: return "This Mac has no such SMC key.";
    case SMCError::Kind::keyNotReadable: return "The SMC key cannot be read.";
    case SMCError::Kind::keyNotWritable: return "The SMC key cannot be written.";
    case SMCError::Kind::sizeMismatch: return "The SMC key has a different size than expected.";
    }
    return "The SMC call failed.";
}
} // namespace

SMCError::SMCError(Kind kind, std::int64_t code, std::string type)
    : std::runtime_error(textFor(kind, code, type)), kind_(kind), code_(code), type_(std::move(type)) {}

SMCError SMCError::kernel(std::int32_t code) { return SMCError(Kind::kernel, static_cast<std::uint32_t>(code), {}); }
SMCError SMCError::firmware(std::uint8_t result) { return SMCError(Kind::firmware, result, {}); }
SMCError SMCError::unexpectedType(const std::string& type) { return SMCError(Kind::unexpectedType, 0, type); }
SMCError SMCError::of(Kind kind) { return SMCError(kind, 0, {}); }

std::optional<SMCError> SMCError::fromKernReturn(std::int32_t kernReturn) {
    if (kernReturn == 0) return std::nullopt;
    if (static_cast<std::uint32_t>(kernReturn) == notPrivilegedReturn) return of(Kind::notPrivileged);
    return kernel(kernReturn);
}

std::optional<SMCError> SMCError::fromResult(std::uint8_t result) {
    switch (result) {
    case 0: return std::nullopt;
    case 0x82: return of(Kind::firmwareHoldingKey);
    case 0x84: return of(Kind::keyNotFound);
    case 0x85: return of(Kind::keyNotReadable);
    case 0x86: return of(Kind::keyNotWritable);
    case 0x87: return of(Kind::sizeMismatch);
    default: return firmware(result);
    }
}

// MARK: FourCC

std::optional<std::uint32_t> FourCC::pack(std::string_view utf8) {
    // Decode UTF-8 scalars; every one must fit in a byte.
    std::vector<std::uint32_t> scalars;
    for (std::size_t i = 0; i < utf8.size();) {
        auto c = static_cast<unsigned char>(utf8[i]);
        std::uint32_t scalar;
        std::size_t length;
        if (c < 0x80) { scalar = c; length = 1; }
        else if ((c & 0xE0) == 0xC0) { scalar = c & 0x1F; length = 2; }
        else if ((c & 0xF0) == 0xE0) { scalar = c & 0x0F; length = 3; }
        else if ((c & 0xF8) == 0xF0) { scalar = c & 0x07; length = 4; }
        else return std::nullopt;
        if (i + length > utf8.size()) return std::nullopt;
        for (std::size_t k = 1; k < length; ++k) {
            auto next = static_cast<unsigned char>(utf8[i + k]);
            if ((next & 0xC0) != 0x80) return std::nullopt;
            scalar = (scalar << 6) | (next & 0x3F);
        }
        scalars.push_back(scalar);
        i += length;
    }
    if (scalars.size() != 4) return std::nullopt;
    std::uint32_t value = 0;
    for (auto s : scalars) {
        if (s > 255) return std::nullopt;
        value = (value << 8) | s;
    }
    return value;
}

std::string FourCC::unpack(std::uint32_t value) {
    std::string out;
    for (int shift = 24; shift >= 0; shift -= 8) {
        auto byte = static_cast<unsigned char>((value >> shift) & 0xFF);
        // Each byte is one scalar: above 127 it takes two bytes of UTF-8.
        if (byte < 0x80) {
            out.push_back(static_cast<char>(byte));
        } else {
            out.push_back(static_cast<char>(0xC0 | (byte >> 6)));
            out.push_back(static_cast<char>(0x80 | (byte & 0x3F)));
        }
    }
    return out;
}

// MARK: SMCValue

std::optional<double> SMCValue::number() const {
    if (type == SMCType::flt) {
        if (bytes.size() != 4) return std::nullopt;
        return static_cast<double>(*decodeFloat(bytes));
    }
    if (type == SMCType::ui8 || type == SMCType::flag) {
        if (bytes.size() != 1) return std::nullopt;
        return bytes[0];
    }
    if (type == SMCType::ui16) {
        if (bytes.size() != 2) return std::nullopt;
        return *decodeUnsigned(bytes);
    }
    if (type == SMCType::ui32) {
        if (bytes.size() != 4) return std::nullopt;
        return *decodeUnsigned(bytes);
    }
    if (type == SMCType::fpe2) return decodeFPE2(bytes);
    return std::nullopt;
}

std::optional<std::uint32_t> SMCValue::decodeUnsigned(const std::vector<std::uint8_t>& bytes) {
    if (bytes.size() != 1 && bytes.size() != 2 && bytes.size() != 4) return std::nullopt;
    std::uint32_t value = 0;
    for (auto b : bytes) value = (value << 8) | b;
    return value;
}

std::optional<float> SMCValue::decodeFloat(const std::vector<std::uint8_t>& bytes) {
    if (bytes.size() != 4) return std::nullopt;
    float value;
    std::memcpy(&value, bytes.data(), 4);
    return value;
}

std::optional<double> SMCValue::decodeFPE2(const std::vector<std::uint8_t>& bytes) {
    if (bytes.size() != 2) return std::nullopt;
    return static_cast<double>((bytes[0] << 8) | bytes[1]) / 4.0;
}

std::vector<std::uint8_t> SMCValue::encode(std::uint8_t value) { return {value}; }
std::vector<std::uint8_t> SMCValue::encode(std::uint16_t value) {
    return {static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value & 0xFF)};
}
std::vector<std::uint8_t> SMCValue::encode(std::uint32_t value) {
    return {static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>((value >> 16) & 0xFF),
            static_cast<std::uint8_t>((value >> 8) & 0xFF), static_cast<std::uint8_t>(value & 0xFF)};
}
std::vector<std::uint8_t> SMCValue::encodeFloat(float value) {
    std::vector<std::uint8_t> out(4);
    std::memcpy(out.data(), &value, 4);
    return out;
}
std::optional<std::vector<std::uint8_t>> SMCValue::encodeFPE2(double value) {
    const double r = std::round(value * 4);  // halves away from zero
    if (std::isnan(r) || std::isinf(r) || r < 0 || r > 65535) return std::nullopt;
    return encode(static_cast<std::uint16_t>(r));
}

std::string_view rawValue(FanLayout::ModeKey key) { return key == FanLayout::ModeKey::lowercase ? "md" : "Md"; }

// MARK: SMCReader

SMCReader::SMCReader(SMCDriver& driver) : driver_(driver) {}
SMCReader::~SMCReader() { close(); }

bool SMCReader::isOpen() const {
    std::lock_guard guard(lock_);
    return connection_ != 0;
}

void SMCReader::open() {
    std::lock_guard guard(lock_);
    if (connection_ != 0) return;
    if (!driver_.hasService()) throw SMCError::of(SMCError::Kind::serviceUnavailable);
    std::uint32_t connection = 0;
    if (auto error = SMCError::fromKernReturn(driver_.openService(connection))) throw *error;
    connection_ = connection;
}

void SMCReader::close() {
    std::lock_guard guard(lock_);
    if (connection_ == 0) return;
    driver_.closeService(connection_);
    connection_ = 0;
    // A later open may reach another firmware after a change of state.
    infoCache_.clear();
}

SMCParamStruct SMCReader::lockedCall(const SMCParamStruct& input) {
    if (connection_ == 0) throw SMCError::of(SMCError::Kind::notOpen);
    SMCParamStruct output{};
    if (auto error = SMCError::fromKernReturn(driver_.callStruct(connection_, smcSelector, input, output))) throw *error;
    if (auto error = SMCError::fromResult(output.result)) throw *error;
    return output;
}

SMCKeyInfo SMCReader::lockedKeyInfo(std::uint32_t key) {
    if (auto cached = infoCache_.find(key); cached != infoCache_.end()) return cached->second;
    SMCParamStruct input{};
    input.key = key;
    input.data8 = static_cast<std::uint8_t>(SMCCommand::keyInfo);
    auto output = lockedCall(input);
    if (output.keyInfoDataSize > 32) throw SMCError::of(SMCError::Kind::sizeMismatch);
    SMCKeyInfo info{static_cast<int>(output.keyInfoDataSize), FourCC::unpack(output.keyInfoDataType),
                    output.keyInfoAttributes};
    infoCache_[key] = info;
    return info;
}

namespace {
std::uint32_t packedOrThrow(const std::string& key) {
    auto packed = FourCC::pack(key);
    if (!packed) throw SMCError::of(SMCError::Kind::invalidKey);
    return *packed;
}
} // namespace

SMCKeyInfo SMCReader::keyInfo(const std::string& key) {
    auto packed = packedOrThrow(key);
    std::lock_guard guard(lock_);
    return lockedKeyInfo(packed);
}

SMCValue SMCReader::read(const std::string& key) {
    auto packed = packedOrThrow(key);
    std::lock_guard guard(lock_);
    auto info = lockedKeyInfo(packed);
    SMCParamStruct input{};
    input.key = packed;
    input.keyInfoDataSize = static_cast<std::uint32_t>(info.size);
    input.data8 = static_cast<std::uint8_t>(SMCCommand::readKey);
    auto output = lockedCall(input);
    const auto count = static_cast<std::size_t>(std::min(info.size, 32));
    return SMCValue{info.type, std::vector<std::uint8_t>(output.bytes, output.bytes + count)};
}

bool SMCReader::exists(const std::string& key) {
    auto packed = packedOrThrow(key);
    std::lock_guard guard(lock_);
    try {
        lockedKeyInfo(packed);
        return true;
    } catch (const SMCError& error) {
        if (error.kind() == SMCError::Kind::keyNotFound) return false;
        throw;
    }
}

int SMCReader::keyCount() {
    auto value = read(std::string(FanKeys::keyCount));
    auto count = value.type == SMCType::ui32 ? SMCValue::decodeUnsigned(value.bytes) : std::nullopt;
    if (!count) throw SMCError::unexpectedType(value.type);
    return static_cast<int>(*count);
}

std::string SMCReader::key(long long index) {
    if (index < 0 || index > 0xFFFFFFFFLL) throw SMCError::of(SMCError::Kind::keyNotFound);
    std::lock_guard guard(lock_);
    SMCParamStruct input{};
    input.data8 = static_cast<std::uint8_t>(SMCCommand::keyAtIndex);
    input.data32 = static_cast<std::uint32_t>(index);
    return FourCC::unpack(lockedCall(input).key);
}

void SMCReader::withConnection(const std::function<void(SMCDriver&, std::uint32_t)>& body) {
    std::lock_guard guard(lock_);
    if (connection_ == 0) throw SMCError::of(SMCError::Kind::notOpen);
    body(driver_, connection_);
}

// MARK: FanKeys

namespace FanKeys {
std::string actual(int fan) { return "F" + std::to_string(fan) + "Ac"; }
std::string minimum(int fan) { return "F" + std::to_string(fan) + "Mn"; }
std::string maximum(int fan) { return "F" + std::to_string(fan) + "Mx"; }
std::string target(int fan) { return "F" + std::to_string(fan) + "Tg"; }
std::string mode(int fan, FanLayout::ModeKey key) { return "F" + std::to_string(fan) + std::string(rawValue(key)); }
SMCExpectation countType() { return {std::string(SMCType::ui8), 1}; }
SMCExpectation testUnlockType() { return {std::string(SMCType::ui8), 1}; }
SMCExpectation speedType() { return {std::string(SMCType::flt), 4}; }
SMCExpectation modeType() { return {std::string(SMCType::ui8), 1}; }

FanLayout discover(std::optional<long long> fanCount, const std::function<bool(const std::string&)>& hasKey) {
    if (!fanCount || *fanCount < 1) return FanLayout::fanless();
    FanLayout layout;
    layout.fanCount = static_cast<int>(std::min<long long>(*fanCount, maxFans));
    if (hasKey("F0md")) layout.modeKey = FanLayout::ModeKey::lowercase;
    else if (hasKey("F0Md")) layout.modeKey = FanLayout::ModeKey::uppercase;
    layout.hasFtst = hasKey(std::string(testUnlock));
    return layout;
}

FanLayout discover(SMCReader& reader) {
    SMCValue value;
    try {
        value = reader.read(std::string(count));
    } catch (const SMCError& error) {
        if (error.kind() == SMCError::Kind::keyNotFound) return FanLayout::fanless();
        throw;
    }
    auto number = value.number();
    if (!number) throw SMCError::unexpectedType(value.type);
    if (!std::isfinite(*number) || *number != std::floor(*number) || *number < 1 || *number > 9.2e18) {
        return FanLayout::fanless();
    }
    // Every key is asked, so a log shows all of them, but a failure still refuses the layout.
    std::optional<SMCError> firstError;
    auto layout = discover(static_cast<long long>(*number), [&](const std::string& key) {
        try {
            return reader.exists(key);
        } catch (const SMCError& error) {
            if (!firstError) firstError = error;
            return false;
        }
    });
    if (firstError) throw *firstError;
    return layout;
}

std::vector<FanReading> readFans(SMCReader& reader, const FanLayout& layout) {
    std::vector<FanReading> fans;
    auto numberOf = [&](const std::string& key) {
        auto value = reader.read(key);
        auto number = value.number();
        if (!number) throw SMCError::unexpectedType(value.type);
        return *number;
    };
    for (int fan = 0; fan < layout.fanCount; ++fan) {
        FanReading reading;
        reading.index = fan;
        if (layout.modeKey) {
            try {
                auto number = reader.read(mode(fan, *layout.modeKey)).number();
                if (number && std::isfinite(*number) && *number == std::floor(*number) && std::fabs(*number) < 2e9) {
                    reading.mode = static_cast<int>(*number);
                }
            } catch (const SMCError& error) {
                if (error.kind() != SMCError::Kind::keyNotFound) throw;
            }
        }
        reading.actual = numberOf(actual(fan));
        reading.minimum = numberOf(minimum(fan));
        reading.maximum = numberOf(maximum(fan));
        reading.target = numberOf(target(fan));
        fans.push_back(reading);
    }
    return fans;
}
} // namespace FanKeys

} // namespace tavrick
