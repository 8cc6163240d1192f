#include "MMPageArrayStream.h"

namespace {

constexpr const char kModuleFile[] =
    "middleware/multimedia-framework/media-service/common/kiu/MMPageArrayStream";

// Catch sites of this module (all in kModuleFile).
constexpr int kCatchGet = 22;
constexpr int kCatchNull = 30;
constexpr int kCatchPut = 46;
constexpr int kCatchReady = 59;

// Entries of the page table made at Ready.
constexpr unsigned long kPageTableCapacity = kau::PageArray::kTableGrowth;

}  // namespace

MMStream* MMPageArrayStream::New(const MMAttri* attrs, unsigned count) {
    return new MMPageArrayStream(attrs, count);
}

uint32_t MMPageArrayStream::PageSizeAttri() {
    const MMAttri* a = AttriGetU32(mmIdPageSize);
    const uint32_t size = a ? static_cast<uint32_t>(a->value) : 0;
    return size ? size : kDefaultPageSize;
}

// The first Ready makes an empty page array; a later one rewinds and keeps the content.
int MMPageArrayStream::Ready() {
    return kau::CatchAndReport(kModuleFile, kCatchReady, 0, [&] {
        if (!pages_) {
            pageSize_ = PageSizeAttri();
            pages_ = new kau::PageArray(kPageTableCapacity, pageSize_);
        }
        position_ = 0;
        return 1;
    });
}

int MMPageArrayStream::Null() {
    kau::PageArray* pages = pages_;
    pages_ = nullptr;
    return kau::CatchAndReport(kModuleFile, kCatchNull, 0, [&] {
        delete pages;
        return 1;
    });
}

int MMPageArrayStream::Play() {
    return pages_ ? 1 : Ready();
}

// Appends at the end whatever the position, then moves the position to the new end and answers
// how far it moved: more than `n` when part of the content was still unread.
// A failure answers `n`, leaving the position where it was.
unsigned MMPageArrayStream::Put(const void* buf, unsigned n) {
    if (!buf || !pages_ || !n) return 0;
    return kau::CatchAndReport(kModuleFile, kCatchPut, n, [&] {
        pages_->PushBytes(static_cast<const unsigned char*>(buf), n);
        const uint32_t old = position_;
        position_ = pages_->Size();
        return position_ - old;
    });
}

// A failure answers `n`, leaving the position where it was.
unsigned MMPageArrayStream::Get(void* buf, unsigned n) {
    if (!n || !buf || !pages_) return 0;
    return kau::CatchAndReport(kModuleFile, kCatchGet, n, [&] {
        const uint32_t k =
            static_cast<uint32_t>(pages_->GetBytes(static_cast<unsigned char*>(buf), n, position_));
        position_ += k;
        return k;
    });
}

int MMPageArrayStream::Size(unsigned long& size) {
    if (!pages_) return 0;
    size = pages_->Size();
    return 1;
}

int MMPageArrayStream::Tell(unsigned long& pos) {
    if (!pages_) return 0;
    pos = position_;
    return 1;
}

// The position counts as signed here: after a negative seek from the beginning it lies before
// the start, and Get then reads nothing from it.
int MMPageArrayStream::Seek(long offset, MMStreamSeekFrom from) {
    if (!pages_) return 0;
    int64_t target;
    if (!SeekTarget(pages_->Size(), static_cast<int32_t>(position_), offset, from, target))
        return 0;
    position_ = static_cast<uint32_t>(target);
    return 1;
}

int MMPageArrayStreamRegistered() {
    static const int registered = [] {
        MMAttri records[2];
        MMAttriFromAny(&records[0], mmIdData, nullptr, 0);
        MMAttriFromTag(&records[1], mmIdPageSize, MMAttriTagU32);
        return MMStream::AddToStreamRegistry(records, 2, MMPageArrayStream::New);
    }();
    return registered;
}
