#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tavrick {

struct FanReading;

// The record that goes in and out of the SMC driver, field by field, 80 bytes, host order.
struct SMCParamStruct {
    std::uint32_t key = 0;
    struct {
        std::uint8_t major = 0;
        std::uint8_t minor = 0;
        std::uint8_t build = 0;
        std::uint8_t reserved = 0;
        std::uint16_t release = 0;
    } vers;
    std::uint8_t padding0[2] = {};
    struct {
        std::uint16_t version = 0;
        std::uint16_t length = 0;
        std::uint32_t cpuPLimit = 0;
        std::uint32_t gpuPLimit = 0;
        std::uint32_t memPLimit = 0;
    } pLimitData;
    std::uint32_t keyInfoDataSize = 0;
    std::uint32_t keyInfoDataType = 0;
    std::uint8_t keyInfoAttributes = 0;
    std::uint8_t keyInfoPadding[3] = {};
    std::uint8_t result = 0;
    std::uint8_t status = 0;
    std::uint8_t data8 = 0;
    std::uint8_t padding1 = 0;
    std::uint32_t data32 = 0;
    std::uint8_t bytes[32] = {};
};

enum class SMCCommand : std::uint8_t { readKey = 5, keyAtIndex = 8, keyInfo = 9 };

// The driver's method number for a struct call.
inline constexpr std::uint32_t smcSelector = 2;

// The offsets the reader relies on; they cannot be negotiated with the driver.
struct SMCLayout {
    static constexpr std::size_t expectedSize = 80;
    static constexpr std::size_t size = sizeof(SMCParamStruct);
    static constexpr std::size_t keyInfoDataSizeOffset = offsetof(SMCParamStruct, keyInfoDataSize);
    static constexpr std::size_t resultOffset = offsetof(SMCParamStruct, result);
    static constexpr std::size_t data32Offset = offsetof(SMCParamStruct, data32);
    static constexpr std::size_t bytesOffset = offsetof(SMCParamStruct, bytes);
    static bool isValid();
    // "80 bytes, keyInfo @28, result @40, data32 @44, bytes @48 (OK)"
    static std::string summary();
};

class SMCError : public std::runtime_error {
public:
    enum class Kind {
        kernel, firmware, unexpectedType, layoutChanged, serviceUnavailable, notOpen, invalidKey,
        notPrivileged, firmwareHoldingKey, keyNotFound, keyNotReadable, keyNotWritable, sizeMismatch
    };
    static constexpr std::uint32_t notPrivilegedReturn = 0xE00002C1;

    static SMCError kernel(std::int32_t code);
    static SMCError firmware(std::uint8_t result);
    static SMCError unexpectedType(const std::string& type);
    static SMCError of(Kind kind);
    // Nothing for success.
    static std::optional<SMCError> fromKernReturn(std::int32_t kernReturn);
    static std::optional<SMCError> fromResult(std::uint8_t result);

    Kind kind() const { return kind_; }
    std::int64_t code() const { return code_; }
    const std::string& type() const { return type_; }
    bool operator==(const SMCError& other) const {
        return kind_ == other.kind_ && code_ == other.code_ && type_ == other.type_;
    }

private:
    SMCError(Kind kind, std::int64_t code, std::string type);
    Kind kind_;
    std::int64_t code_ = 0;
    std::string type_;
};

struct SMCKeyInfo {
    int size = 0;
    std::string type;
    std::uint8_t attributes = 0;
    friend bool operator==(const SMCKeyInfo&, const SMCKeyInfo&) = default;
};

namespace FourCC {
// Exactly four scalars below 256, the first in the top byte.
std::optional<std::uint32_t> pack(std::string_view utf8);
std::string unpack(std::uint32_t value);
} // namespace FourCC

namespace SMCType {
inline constexpr std::string_view flt = "flt ";
inline constexpr std::string_view ui8 = "ui8 ";
inline constexpr std::string_view ui16 = "ui16";
inline constexpr std::string_view ui32 = "ui32";
inline constexpr std::string_view fpe2 = "fpe2";
inline constexpr std::string_view flag = "flag";
} // namespace SMCType

struct SMCValue {
    std::string type;
    std::vector<std::uint8_t> bytes;

    std::optional<double> number() const;

    static std::optional<std::uint32_t> decodeUnsigned(const std::vector<std::uint8_t>& bytes);
    static std::optional<float> decodeFloat(const std::vector<std::uint8_t>& bytes);
    static std::optional<double> decodeFPE2(const std::vector<std::uint8_t>& bytes);
    static std::vector<std::uint8_t> encode(std::uint8_t value);
    static std::vector<std::uint8_t> encode(std::uint16_t value);
    static std::vector<std::uint8_t> encode(std::uint32_t value);
    static std::vector<std::uint8_t> encodeFloat(float value);
    static std::optional<std::vector<std::uint8_t>> encodeFPE2(double value);
    friend bool operator==(const SMCValue&, const SMCValue&) = default;
};

// What a writer checks a key against before writing.
struct SMCExpectation {
    std::string type;
    int size = 0;
    bool matches(const SMCKeyInfo& info) const { return info.type == type && info.size == size; }
};

struct FanLayout {
    enum class ModeKey { lowercase, uppercase };
    int fanCount = 0;
    std::optional<ModeKey> modeKey;
    bool hasFtst = false;
    bool isFanless() const { return fanCount == 0; }
    static FanLayout fanless() { return {}; }
    friend bool operator==(const FanLayout&, const FanLayout&) = default;
};
std::string_view rawValue(FanLayout::ModeKey key);

// The platform's side of the SMC: finding the service, opening it, the one struct call. Codes
// are the platform's return values (0 is success).
class SMCDriver {
public:
    virtual ~SMCDriver() = default;
    virtual bool hasService() = 0;
    virtual std::int32_t openService(std::uint32_t& connection) = 0;
    virtual std::int32_t callStruct(std::uint32_t connection, std::uint32_t selector, const SMCParamStruct& input,
                                    SMCParamStruct& output) = 0;
    virtual void closeService(std::uint32_t connection) = 0;
};

// The read side of the SMC. Every call is safe from any thread: the connection and the key-info
// cache are used under one mutex, and a failure leaves the reader usable.
class SMCReader {
public:
    explicit SMCReader(SMCDriver& driver);
    ~SMCReader();
    SMCReader(const SMCReader&) = delete;
    SMCReader& operator=(const SMCReader&) = delete;

    bool isOpen() const;
    void open();
    void close();
    SMCKeyInfo keyInfo(const std::string& key);
    SMCValue read(const std::string& key);
    bool exists(const std::string& key);
    int keyCount();
    std::string key(long long index);

    // For a writer that shares the connection: runs `body` with the lock held and the open
    // connection. `notOpen` when closed.
    void withConnection(const std::function<void(SMCDriver&, std::uint32_t)>& body);
    SMCKeyInfo lockedKeyInfo(std::uint32_t key);

private:
    SMCParamStruct lockedCall(const SMCParamStruct& input);
    SMCDriver& driver_;
    mutable std::mutex lock_;
    std::uint32_t connection_ = 0;
    std::map<std::uint32_t, SMCKeyInfo> infoCache_;
};

namespace FanKeys {
inline constexpr std::string_view count = "FNum";
inline constexpr std::string_view testUnlock = "Ftst";
inline constexpr std::string_view keyCount = "#KEY";
inline constexpr int maxFans = 10;
std::string actual(int fan);
std::string minimum(int fan);
std::string maximum(int fan);
std::string target(int fan);
std::string mode(int fan, FanLayout::ModeKey key);
SMCExpectation countType();
SMCExpectation testUnlockType();
SMCExpectation speedType();
SMCExpectation modeType();

FanLayout discover(std::optional<long long> fanCount, const std::function<bool(const std::string&)>& hasKey);
FanLayout discover(SMCReader& reader);
std::vector<FanReading> readFans(SMCReader& reader, const FanLayout& layout);
} // namespace FanKeys

} // namespace tavrick
