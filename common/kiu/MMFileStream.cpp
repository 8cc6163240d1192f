#include "MMFileStream.h"

#include "kau.h"

namespace {

constexpr const char kModuleFile[] =
    "middleware/multimedia-framework/media-service/common/kiu/MMFileStream";

// Error positions and catch sites of this module (all in kModuleFile).
constexpr int kCatchGet = 21;
constexpr int kCatchNull = 29;
constexpr int kCatchPut = 43;
constexpr int kCatchReady = 54;
constexpr int kErrSizeTellPosition = 73;
constexpr int kErrSizeSeekEnd = 74;
constexpr int kErrSizeTellEnd = 76;
constexpr int kErrSizeSeekBack = 77;
constexpr int kCatchSize = 80;
constexpr int kCatchTell = 88;

constexpr const char kDefaultMode[] = "rb";

}  // namespace

MMStream* MMFileStream::New(const MMAttri* attrs, unsigned count) {
    return new MMFileStream(attrs, count);
}

int MMFileStream::Ready() {
    return kau::CatchAndReport(kModuleFile, kCatchReady, 0,
                               [&] { return file_ ? Rewind() : Open(); });
}

int MMFileStream::Open() {
    const char* name = AttriAnyString(mmIdFileName);
    if (!name) return 0;
    const char* mode = AttriAnyString(mmIdFileMode);
    file_ = fopen(name, mode ? mode : kDefaultMode);
    return file_ ? 1 : 0;
}

int MMFileStream::Rewind() {
    if (fseek(file_, 0, SEEK_SET) == 0) return 1;
    // A file that cannot go back to its start is dropped without closing it, and the stream
    // becomes unready.
    file_ = nullptr;
    return 0;
}

int MMFileStream::Null() {
    if (!file_) return 1;
    FILE* file = file_;
    file_ = nullptr;
    return kau::CatchAndReport(kModuleFile, kCatchNull, 0,
                               [&] { return fclose(file) == 0 ? 1 : 0; });
}

int MMFileStream::Play() {
    return file_ ? 1 : Ready();
}

unsigned MMFileStream::Get(void* buf, unsigned n) {
    return kau::CatchAndReport(kModuleFile, kCatchGet, 0u, [&] {
        if (!buf || !file_ || !n) return 0u;
        return static_cast<unsigned>(fread(buf, 1, n, file_));
    });
}

unsigned MMFileStream::Put(const void* buf, unsigned n) {
    return kau::CatchAndReport(kModuleFile, kCatchPut, 0u, [&] {
        if (!buf || !file_ || !n) return 0u;
        return static_cast<unsigned>(fwrite(buf, 1, n, file_));
    });
}

int MMFileStream::Seek(long offset, MMStreamSeekFrom from) {
    if (!file_) return 0;
    int whence;
    switch (from) {
        case MMStreamSeekFromEnd:
            whence = SEEK_END;
            break;
        case MMStreamSeekFromCurrent:
            whence = SEEK_CUR;
            break;
        case MMStreamSeekFromBegin:
            whence = SEEK_SET;
            break;
        default:
            return 0;
    }
    return fseek(file_, static_cast<int32_t>(offset), whence) == 0 ? 1 : 0;
}

int MMFileStream::Tell(unsigned long& pos) {
    return kau::CatchAndReport(kModuleFile, kCatchTell, 0, [&] {
        if (!file_) return 0;
        pos = static_cast<uint32_t>(ftell(file_));
        return 1;
    });
}

int MMFileStream::Size(unsigned long& size) {
    return kau::CatchAndReport(kModuleFile, kCatchSize, 0, [&] {
        if (!file_) return 0;
        size = MeasureSize();
        return 1;
    });
}

// Measures the file from its end and goes back, leaving the position where it was.
uint32_t MMFileStream::MeasureSize() {
    const long saved = ftell(file_);
    if (saved < 0) kau::Error::Throw(kModuleFile, kErrSizeTellPosition);
    if (fseek(file_, 0, SEEK_END) != 0) kau::Error::Throw(kModuleFile, kErrSizeSeekEnd);
    const long size = ftell(file_);
    if (size < 0) kau::Error::Throw(kModuleFile, kErrSizeTellEnd);
    if (fseek(file_, saved, SEEK_SET) != 0) kau::Error::Throw(kModuleFile, kErrSizeSeekBack);
    return static_cast<uint32_t>(size);
}

int MMFileStreamRegistered() {
    static const int registered = [] {
        MMAttri name;
        MMAttriFromString(&name, mmIdFileName, nullptr);
        return MMStream::AddToStreamRegistry(&name, 1, MMFileStream::New);
    }();
    return registered;
}
