#include "kau.h"

#include <cstdio>
#include <cstring>

namespace kau {

void Error::Throw(const char* file, int line, int code) {
    throw Error(file, line, code);
}

namespace {
thread_local FirstReport* threadRecorder = nullptr;
}  // namespace

FirstReport::FirstReport() : outer_(threadRecorder) {
    threadRecorder = this;
}

FirstReport::~FirstReport() {
    threadRecorder = outer_;
}

void FirstReport::Record(const char* file, int position) {
    if (file_) return;
    file_ = file ? file : "";
    position_ = position;
}

void ReportCurrentException(const char* file, int line) {
    const char* place = file;
    int position = line;
    try {
        throw;
    } catch (const Error& e) {
        place = e.FileName();
        position = e.Position();
        printf("\n?!exception@ %s +%d !?\n\n\n", place, position);
    } catch (const char* s) {
        printf("\n?!%s@ %s +%d !?\n\n\n", s ? s : "exception", file, line);
    } catch (...) {
        printf("\n?!exception@ %s +%d !?\n\n\n", file, line);
    }
    fflush(nullptr);
    if (threadRecorder) threadRecorder->Record(place, position);
}

namespace mem {
namespace {

void* ArrayNew(unsigned long size) {
    return new unsigned char[size];
}

void ArrayDelete(void* p) {
    if (p) delete[] static_cast<unsigned char*>(p);
}

NewFunction newHook = ArrayNew;
DeleteFunction deleteHook = ArrayDelete;

// Over-allocation and alignment of the tracked and aligned blocks: room for the words
// before the user pointer plus up to 15 bytes of alignment slack.
constexpr uintptr_t kHeapHeaderBytes = sizeof(Heap::BlockHeader);
constexpr uintptr_t kAlignedHeaderBytes = sizeof(void*);

unsigned char* AlignAfter(void* raw, uintptr_t headerBytes) {
    return reinterpret_cast<unsigned char*>((reinterpret_cast<uintptr_t>(raw) + headerBytes + 15) &
                                            ~uintptr_t{15});
}

Heap::BlockHeader* HeaderOf(void* user) {
    return reinterpret_cast<Heap::BlockHeader*>(static_cast<unsigned char*>(user) -
                                                kHeapHeaderBytes);
}

// Adds the over-allocation to a 32-bit size, answering 0 when it would wrap.
unsigned long WithOverhead(unsigned long size, uintptr_t overhead) {
    if (size > UINT32_MAX - (overhead + 16)) return 0;
    return size + overhead + 16;
}

}  // namespace

void SetExternalNewAndDelete(NewFunction newFn, DeleteFunction deleteFn) {
    if (!newFn || !deleteFn) return;
    newHook = newFn;
    deleteHook = deleteFn;
}

void* New(unsigned long size) {
    return CatchAndReport(kKauFile, kCatchNew, nullptr, [&] { return newHook(size); });
}

void Delete(void* p) {
    deleteHook(p);
}

void* NewAligned(unsigned long size) {
    unsigned long total = WithOverhead(size, kAlignedHeaderBytes);
    void* raw = total ? New(total) : nullptr;
    if (!raw) Error::Throw(kKauFile, kErrNewAligned);
    unsigned char* user = AlignAfter(raw, kAlignedHeaderBytes);
    reinterpret_cast<void**>(user)[-1] = raw;
    return user;
}

void DeleteAligned(void* p) {
    if (reinterpret_cast<uintptr_t>(p) % 16 != 0)
        Error::Throw(kKauFile, kErrDeleteAlignedMisaligned);
    Delete(static_cast<void**>(p)[-1]);
}

void* Heap::Allocate(unsigned long size) {
    unsigned long total = WithOverhead(size, kHeapHeaderBytes);
    void* raw = total ? New(total) : nullptr;
    if (!raw) Error::Throw(kKauFile, kErrHeapAllocate);
    unsigned char* user = AlignAfter(raw, kHeapHeaderBytes);
    BlockHeader* header = HeaderOf(user);
    header->next = head_;
    header->size = size;
    header->raw = raw;
    head_ = header;
    return user;
}

void* Heap::AllocateAndZero(unsigned long size) {
    uint32_t rounded = RoundUp(static_cast<uint32_t>(size), 4);
    void* p = Allocate(rounded);
    Zero32(p, rounded / 4);
    return p;
}

void* Heap::Reallocate(void* p, unsigned long size) {
    if (!p) return Allocate(size);
    BlockHeader* target = HeaderOf(p);
    BlockHeader** link = &head_;
    while (*link && *link != target)
        link = &(*link)->next;
    if (!*link) Error::Throw(kKauFile, kErrHeapReallocateUnknown);
    if (size <= target->size) return p;
    // The new block is made before the old one leaves the list, so a failure loses nothing.
    void* grown = Allocate(size);
    Copy8(grown, p, target->size);
    link = &head_;
    while (*link != target)
        link = &(*link)->next;
    *link = target->next;
    Delete(target->raw);
    return grown;
}

void Heap::FreeMemory() {
    while (head_) {
        BlockHeader* header = head_;
        head_ = header->next;
        Delete(header->raw);
    }
}

void Copy8(void* dst, const void* src, unsigned long n) {
    if (n) memcpy(dst, src, n);
}

void Copy32(void* dst, const void* src, unsigned long words) {
    Copy8(dst, src, words * 4);
}

void Zero8(void* p, unsigned long n) {
    if (n) memset(p, 0, n);
}

void Zero32(void* p, unsigned long words) {
    Zero8(p, words * 4);
}

void Set8(void* p, unsigned char v, unsigned long n) {
    if (n) memset(p, v, n);
}

void Set32(void* p, unsigned long v, unsigned long words) {
    Set8(p, static_cast<unsigned char>(v), words * 4);
}

int Compare(const void* a, const void* b, unsigned long n) {
    if (!a) return b ? -1 : 0;
    if (!b) return 1;
    return CompareNonNull(a, b, n);
}

int CompareNonNull(const void* a, const void* b, unsigned long n) {
    int c = n ? memcmp(a, b, n) : 0;
    return (c > 0) - (c < 0);
}

int Compare(const char* a, const char* b) {
    if (!a) return b ? -1 : 0;
    if (!b) return 1;
    int c = strcmp(a, b);
    return (c > 0) - (c < 0);
}

const void* AtChar(const void* p, char c, unsigned long n) {
    if (!p || !n) return nullptr;
    return memchr(p, static_cast<unsigned char>(c), n);
}

unsigned long StrLen(const char* s) {
    return s ? strlen(s) : 0;
}

void CopyIncludingLast0(char* dst, const char* src) {
    strcpy(dst, src);
}

bool StrEndsWith(const char* s, const char* end) {
    if (!s || !end) return false;
    unsigned long ls = strlen(s), le = strlen(end);
    if (le > ls) return false;
    auto fold = [](char c) { return (c >= 'a' && c <= 'z') ? char(c - 32) : c; };
    const char* tail = s + (ls - le);
    for (unsigned long i = 0; i < le; ++i)
        if (fold(tail[i]) != fold(end[i])) return false;
    return true;
}

const char* AtStr(const char* s, const char* sub) {
    if (sub || !s) return nullptr;
    return *s ? s : nullptr;
}

}  // namespace mem

PageArray::PageArray(unsigned long capacity, unsigned long pageSize) {
    Create(capacity, pageSize);
}

void PageArray::Create(unsigned long capacity, unsigned long pageSize) {
    DisposePages();
    capacity_ = static_cast<uint32_t>(capacity);
    pageSize_ = static_cast<uint32_t>(pageSize);
    pageCount_ = 0;
    bytesInLastPage_ = 0;
    if (pageSize_ == 0) Error::Throw(kKauFile, kErrPageSizeZero);
    if (capacity_ == 0) return;
    if (capacity_ > UINT32_MAX / sizeof(unsigned char*))
        Error::Throw(kKauFile, kErrPageTableAllocate);
    pages_ = static_cast<unsigned char**>(mem::New(capacity_ * sizeof(unsigned char*)));
    if (!pages_) {
        capacity_ = 0;
        Error::Throw(kKauFile, kErrPageTableAllocate);
    }
}

uint32_t PageArray::Size() const {
    return pageCount_ ? (pageCount_ - 1) * pageSize_ + bytesInLastPage_ : 0;
}

unsigned char* PageArray::AddPage() {
    if (pageCount_ == capacity_) {
        uint32_t grown = capacity_ + kTableGrowth;
        auto table = grown <= UINT32_MAX / sizeof(unsigned char*)
                         ? static_cast<unsigned char**>(mem::New(grown * sizeof(unsigned char*)))
                         : nullptr;
        if (!table) Error::Throw(kKauFile, kErrPageTableGrow);
        mem::Copy8(table, pages_, capacity_ * sizeof(unsigned char*));
        mem::Delete(pages_);
        pages_ = table;
        capacity_ = grown;
    }
    auto page = static_cast<unsigned char*>(mem::New(pageSize_));
    if (!page) Error::Throw(kKauFile, kErrPageAllocate);
    pages_[pageCount_++] = page;
    bytesInLastPage_ = 0;
    return page;
}

void PageArray::PushBytes(const unsigned char* src, unsigned long n) {
    if (!src || !n) return;
    uint32_t left = static_cast<uint32_t>(n);
    if (pageCount_ && bytesInLastPage_ < pageSize_) {
        uint32_t k = left < pageSize_ - bytesInLastPage_ ? left : pageSize_ - bytesInLastPage_;
        mem::Copy8(pages_[pageCount_ - 1] + bytesInLastPage_, src, k);
        bytesInLastPage_ += k;
        src += k;
        left -= k;
    }
    while (left) {
        unsigned char* page = AddPage();
        uint32_t k = left < pageSize_ ? left : pageSize_;
        mem::Copy8(page, src, k);
        bytesInLastPage_ = k;
        src += k;
        left -= k;
    }
}

unsigned long PageArray::GetBytes(unsigned char* dst, unsigned long n, unsigned long offset) const {
    uint32_t size = Size();
    if (!pageCount_ || !dst || offset >= size || !n) return 0;
    uint32_t count =
        n < size - offset ? static_cast<uint32_t>(n) : size - static_cast<uint32_t>(offset);
    uint32_t page = static_cast<uint32_t>(offset) / pageSize_;
    uint32_t at = static_cast<uint32_t>(offset) % pageSize_;
    for (uint32_t left = count; left;) {
        uint32_t k = left < pageSize_ - at ? left : pageSize_ - at;
        mem::Copy8(dst, pages_[page] + at, k);
        dst += k;
        left -= k;
        ++page;
        at = 0;
    }
    return count;
}

int PageArray::CopyTo(void* dst) const {
    if (!pageCount_) return 0;
    if (!dst) Error::Throw(kKauFile, kErrCopyToNull);
    auto out = static_cast<unsigned char*>(dst);
    for (uint32_t i = 0; i + 1 < pageCount_; ++i, out += pageSize_)
        mem::Copy8(out, pages_[i], pageSize_);
    mem::Copy8(out, pages_[pageCount_ - 1], bytesInLastPage_);
    return 1;
}

int PageArray::DeleteLastPage() {
    if (!pageCount_) return 0;
    mem::Delete(pages_[--pageCount_]);
    bytesInLastPage_ = pageCount_ ? pageSize_ : 0;
    return 1;
}

int PageArray::SetByteCountInLastPage(unsigned long n) {
    if (!pageCount_ || n > pageSize_) return 0;
    bytesInLastPage_ = static_cast<uint32_t>(n);
    return 1;
}

void PageArray::DisposePages() {
    CatchAndReport(kKauFile, kCatchDisposePages, [&] {
        while (pageCount_)
            mem::Delete(pages_[--pageCount_]);
    });
    mem::Delete(pages_);
    pages_ = nullptr;
    capacity_ = 0;
    pageCount_ = 0;
    bytesInLastPage_ = 0;
}

namespace {

void Swap(unsigned char* a, unsigned char* b, unsigned long width) {
    if (a == b) return;
    for (unsigned long i = 0; i < width; ++i) {
        unsigned char t = a[i];
        a[i] = b[i];
        b[i] = t;
    }
}

// Repeated maximum selection over [lo, hi], both included.
void SelectionSort(unsigned char* lo, unsigned char* hi, unsigned long width,
                   int (*compare)(const void*, const void*)) {
    while (hi > lo) {
        unsigned char* max = lo;
        for (unsigned char* p = lo + width; p <= hi; p += width)
            if (compare(p, max) > 0) max = p;
        Swap(max, hi, width);
        hi -= width;
    }
}

}  // namespace

void Sort(void* base, unsigned long count, unsigned long width,
          int (*compare)(const void*, const void*)) {
    if (count < 2 || width == 0) return;
    constexpr int kStackDepth = 30;
    unsigned char* loStack[kStackDepth];
    unsigned char* hiStack[kStackDepth];
    int depth = 0;
    unsigned char* lo = static_cast<unsigned char*>(base);
    unsigned char* hi = lo + (count - 1) * width;

    for (;;) {
        unsigned long size = static_cast<unsigned long>(hi - lo) / width + 1;
        bool rangeDone = false;
        if (size <= 8) {
            SelectionSort(lo, hi, width, compare);
            rangeDone = true;
        } else {
            Swap(lo + (size / 2) * width, lo, width);
            unsigned char* loguy = lo;
            unsigned char* higuy = hi + width;
            for (;;) {
                do
                    loguy += width;
                while (loguy <= hi && compare(loguy, lo) <= 0);
                do
                    higuy -= width;
                while (higuy > lo && compare(higuy, lo) >= 0);
                if (higuy < loguy) break;
                Swap(loguy, higuy, width);
            }
            Swap(lo, higuy, width);

            // (higuy - lo is at least 0: higuy never passes below lo.)
            bool lowerHasMore = higuy - lo > hi - loguy;
            bool lowerNonEmpty = lo + width < higuy;
            bool upperNonEmpty = loguy < hi;
            if (lowerHasMore) {
                if (lowerNonEmpty) {
                    loStack[depth] = lo;
                    hiStack[depth++] = higuy - width;
                }
                if (upperNonEmpty)
                    lo = loguy;
                else
                    rangeDone = true;
            } else {
                if (upperNonEmpty) {
                    loStack[depth] = loguy;
                    hiStack[depth++] = hi;
                }
                if (lowerNonEmpty)
                    hi = higuy - width;
                else
                    rangeDone = true;
            }
        }
        if (rangeDone) {
            if (depth == 0) return;
            --depth;
            lo = loStack[depth];
            hi = hiStack[depth];
        }
    }
}

}  // namespace kau
