#include "CoreKit/DiagnosticLog.h"

#include "CoreKit/Directories.h"
#include "CoreKit/DispatchScheduler.h"
#include "CoreKit/FileIO.h"
#include "CoreKit/UnicodeText.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <limits>
#include <sys/types.h>
#include <unistd.h>

namespace tavrick {

namespace fs = std::filesystem;

namespace {

constexpr const char* queueLabel = "com.orvell.tavrick.diagnostic-log";
constexpr const char* currentName = "tavrick.log";
constexpr const char* previousName = "tavrick-previous.log";
constexpr const char* markerName = "running.marker";

// The C library reads the time zone once; looking again now and then lets a change of the
// system's zone reach the stamps without a system call on every note.
constexpr double zoneRecheckSeconds = 60;

long long floorDiv(long long value, long long divisor) {
    long long quotient = value / divisor;
    if ((value % divisor != 0) && ((value < 0) != (divisor < 0))) --quotient;
    return quotient;
}

// "yyyy-MM-dd HH:mm:ss.SSS [category] message\n" in local time. Milliseconds are truncated, as
// date formatters do; the value is first rounded to the microsecond so that 0.125 stored as
// 0.12499999… still reads ".125".
std::string composeLine(double now, std::string_view category, std::string_view message) {
    long long micros = 0;
    if (std::isfinite(now) && std::fabs(now) < 9.0e12) micros = std::llround(now * 1e6);
    const long long millis = floorDiv(micros, 1000);
    const auto seconds = static_cast<std::time_t>(floorDiv(millis, 1000));
    const int fraction = static_cast<int>(millis - floorDiv(millis, 1000) * 1000);

    std::tm local{};
    if (!localtime_r(&seconds, &local)) local = std::tm{};
    char stamp[96];
    int length = std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02d %02d:%02d:%02d.%03d [",
                               local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                               local.tm_min, local.tm_sec, fraction);
    if (length < 0) length = 0;
    if (length >= static_cast<int>(sizeof stamp)) length = sizeof stamp - 1;

    std::string line;
    line.reserve(static_cast<std::size_t>(length) + category.size() + message.size() + 3);
    line.append(stamp, static_cast<std::size_t>(length));
    line.append(category);
    line.append("] ");
    line.append(message);
    line.push_back('\n');
    return line;
}

// A missing or unreadable file contributes nothing.
std::string readWhole(const fs::path& path) {
    int error = 0;
    return FileIO::readAll(path, error).value_or(std::string());
}

} // namespace

struct DiagnosticLog::Handle {
    explicit Handle(int descriptor) : fd(descriptor) {}
    ~Handle() { ::close(fd); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    // Write errors are ignored: a full disk loses this line and nothing else.
    void write(std::string_view data) const {
        while (!data.empty()) {
            const ssize_t count = ::write(fd, data.data(), data.size());
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0) return;
            data.remove_prefix(static_cast<std::size_t>(count));
        }
    }

    int fd;
};

std::shared_ptr<DiagnosticLog> DiagnosticLog::make(fs::path directory, Scheduler& scheduler) {
    return std::shared_ptr<DiagnosticLog>(new DiagnosticLog(std::move(directory), scheduler));
}

DiagnosticLog& DiagnosticLog::shared() {
    // Leaked on purpose: tap threads may still note while static destructors run.
    static auto* log = new std::shared_ptr<DiagnosticLog>(make(supportDirectory(), DispatchScheduler::shared()));
    return **log;
}

DiagnosticLog::DiagnosticLog(fs::path directory, Scheduler& scheduler)
    : directory_(std::move(directory)),
      scheduler_(scheduler),
      clock_(scheduler.clock()),
      queue_(scheduler.makeSerialQueue(queueLabel, QoS::utility)),
      zoneCheckedAt_(-std::numeric_limits<double>::infinity()) {}

DiagnosticLog::~DiagnosticLog() {
    // The last reference can go inside one of the queue's own blocks, and a queue must not be
    // torn down by its own worker, so it is let go from the pool instead.
    if (queue_ && queue_->isCurrent()) {
        scheduler_.global(QoS::utility, [queue = std::move(queue_)] {});
    }
}

fs::path DiagnosticLog::fileURL() const { return directory_ / currentName; }
fs::path DiagnosticLog::previousFileURL() const { return directory_ / previousName; }
fs::path DiagnosticLog::markerURL() const { return directory_ / markerName; }

void DiagnosticLog::note(std::string_view category, std::string_view message) {
    const double now = clock_.now();
    double checked = zoneCheckedAt_.load(std::memory_order_relaxed);
    if (!(std::fabs(now - checked) < zoneRecheckSeconds) &&
        zoneCheckedAt_.compare_exchange_strong(checked, now, std::memory_order_relaxed)) {
        tzset();
    }
    queue_->async([weak = weak_from_this(), line = composeLine(now, category, message)] {
        if (auto self = weak.lock()) self->append(line);
    });
}

void DiagnosticLog::append(const std::string& line) {
    const std::string repaired = UnicodeText::isValidUTF8(line) ? std::string() : UnicodeText::repairedUTF8(line);
    const std::string& bytes = repaired.empty() ? line : repaired;

    std::lock_guard lock(lock_);
    Handle* handle = openHandle();
    if (!handle) return;
    handle->write(bytes);
    // Checked after the write, so a line is never split and the file may pass the limit by one line.
    const off_t offset = ::lseek(handle->fd, 0, SEEK_CUR);
    if (offset >= 0 && static_cast<std::uint64_t>(offset) >= rotateAtBytes) rotate();
}

DiagnosticLog::Handle* DiagnosticLog::openHandle() {
    if (handle_) return handle_.get();
    std::error_code error;
    fs::create_directories(directory_, error);
    const int fd = ::open(fileURL().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return nullptr;
    ::lseek(fd, 0, SEEK_END);
    handle_ = std::make_unique<Handle>(fd);
    return handle_.get();
}

void DiagnosticLog::rotate() {
    closeHandle();
    std::error_code error;
    fs::remove(previousFileURL(), error);
    fs::rename(fileURL(), previousFileURL(), error);
}

void DiagnosticLog::closeHandle() {
    handle_.reset();
}

void DiagnosticLog::flush() {
    auto syncToDisk = [this] {
        std::lock_guard lock(lock_);
        if (handle_) ::fsync(handle_->fd);
    };
    // From the queue itself a sync would wait for itself; everything earlier has run anyway.
    if (queue_->isCurrent()) {
        syncToDisk();
    } else {
        queue_->sync(syncToDisk);
    }
}

bool DiagnosticLog::beginSession() {
    std::error_code error;
    const bool markerWasThere = fs::exists(markerURL(), error);
    fs::create_directories(directory_, error);
    const int fd = ::open(markerURL().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd >= 0) ::close(fd);
    return !markerWasThere;
}

void DiagnosticLog::endSession() {
    std::error_code error;
    fs::remove(markerURL(), error);
    flush();
}

std::string DiagnosticLog::contents() {
    flush();
    std::lock_guard lock(lock_);
    return readWhole(previousFileURL()) + readWhole(fileURL());
}

std::uint64_t DiagnosticLog::sizeInBytes() {
    flush();
    std::lock_guard lock(lock_);
    std::uint64_t total = 0;
    for (const auto& path : {previousFileURL(), fileURL()}) {
        std::error_code error;
        const auto size = fs::file_size(path, error);
        if (!error) total += size;
    }
    return total;
}

void DiagnosticLog::clear() {
    std::lock_guard lock(lock_);
    closeHandle();
    std::error_code error;
    fs::remove(fileURL(), error);
    fs::remove(previousFileURL(), error);
}

} // namespace tavrick
