// Foundation of the media service: the one exception type and its catch-site report,
// memory behind replaceable allocator hooks, a tracked heap, a paged byte array and a sort.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace kau {

// Module text carried by every error raised in this header or in kau.cpp.
inline constexpr const char kKauFile[] =
    "middleware/multimedia-framework/media-service/common/kau/kau";

// Error positions of the foundation (all in kKauFile).
inline constexpr int kErrRoundUpOverflow = 210;
inline constexpr int kErrHeapAllocate = 390;
inline constexpr int kErrHeapReallocateUnknown = 436;
inline constexpr int kCatchNew = 475;
inline constexpr int kErrNewAligned = 481;
inline constexpr int kErrDeleteAlignedMisaligned = 492;
inline constexpr int kErrPageSizeZero = 519;
inline constexpr int kErrPageTableAllocate = 525;
inline constexpr int kErrPageTableGrow = 538;
inline constexpr int kErrPageAllocate = 548;
inline constexpr int kErrCopyToNull = 559;
inline constexpr int kCatchDisposePages = 591;

// The one exception type: where it was raised. The code is carried for debugging only.
class Error {
  public:
    Error(const char* file, int line, int code) : file_(file), position_(line), code_(code) {}

    [[noreturn]] static void Throw(const char* file, int line, int code = -1);

    // Never null: an error built without a file names "".
    const char* FileName() const { return file_ ? file_ : ""; }
    int Position() const { return position_; }

  private:
    const char* file_;
    int32_t position_;
    [[maybe_unused]] int32_t code_;  // carried for debugging only
};

// The catch-site report of the exception being handled, followed by fflush(NULL).
// Call it only from inside a catch block; `file` and `line` name the catch site and are
// printed for exceptions that carry no place of their own.
void ReportCurrentException(const char* file, int line);

// The catch-and-report boundary: answers what `body` answers; an exception leaving it is
// reported (ReportCurrentException with `file` and `position`) and answered with `failure`.
template <typename Body>
std::invoke_result_t<Body&> CatchAndReport(const char* file, int position,
                                           std::invoke_result_t<Body&> failure, Body&& body) {
    try {
        return body();
    } catch (...) {
        ReportCurrentException(file, position);
        return failure;
    }
}

// The same for a body that answers nothing.
template <typename Body>
void CatchAndReport(const char* file, int position, Body&& body) {
    try {
        body();
    } catch (...) {
        ReportCurrentException(file, position);
    }
}

// While alive, remembers the place of the first report printed on its thread: the module text
// and position a caller turns into words for its user. Reports still go to standard output.
// Recorders nest; the innermost one records.
class FirstReport {
  public:
    FirstReport();
    ~FirstReport();
    FirstReport(const FirstReport&) = delete;
    FirstReport& operator=(const FirstReport&) = delete;

    bool Seen() const { return file_ != nullptr; }
    // "" and 0 until a report is printed.
    const char* FileName() const { return file_ ? file_ : ""; }
    int Position() const { return position_; }

  private:
    friend void ReportCurrentException(const char* file, int line);
    void Record(const char* file, int position);

    FirstReport* outer_;
    const char* file_ = nullptr;
    int position_ = 0;
};

// Rounds `value` up to a multiple of `n`, raising kErrRoundUpOverflow with `code` when the
// result would not fit in 32 bits.
inline uint32_t RoundUp(uint32_t value, uint32_t n, int code = -1) {
    if (value > UINT32_MAX - (n - 1)) Error::Throw(kKauFile, kErrRoundUpOverflow, code);
    return (value + n - 1) / n * n;
}

namespace mem {

using NewFunction = void* (*)(unsigned long);
using DeleteFunction = void (*)(void*);

// Replaces both allocator hooks, only when both are given.
void SetExternalNewAndDelete(NewFunction newFn, DeleteFunction deleteFn);

// Memory through the hooks. New never throws: a failure is reported and answers null.
void* New(unsigned long size);
void Delete(void* p);

// 16-byte-aligned blocks; the raw block pointer sits in the word before the user pointer.
void* NewAligned(unsigned long size);
void DeleteAligned(void* p);

// An owner of 16-byte-aligned blocks that are released together.
class Heap {
  public:
    Heap() = default;
    ~Heap() { FreeMemory(); }
    Heap(const Heap&) = delete;
    Heap& operator=(const Heap&) = delete;

    void* Allocate(unsigned long size);
    void* AllocateAndZero(unsigned long size);
    // Grows a block of this heap (blocks never shrink); null `p` allocates.
    void* Reallocate(void* p, unsigned long size);
    void FreeMemory();
    void HandleExceptionInConstructor() { FreeMemory(); }

    // Every block is preceded by this header: newest first in the list.
    struct BlockHeader {
        BlockHeader* next;
        uintptr_t size;
        void* raw;
    };

  private:
    BlockHeader* head_ = nullptr;
};

// Byte and string primitives. Sizes are byte counts unless the name says words.
void Copy8(void* dst, const void* src, unsigned long n);
void Copy32(void* dst, const void* src, unsigned long words);
void Zero8(void* p, unsigned long n);
void Zero32(void* p, unsigned long words);
void Set8(void* p, unsigned char v, unsigned long n);
// Fills 4 x `words` bytes with the low byte of `v` (a byte fill, not a word pattern).
void Set32(void* p, unsigned long v, unsigned long words);
int Compare(const void* a, const void* b, unsigned long n);
int CompareNonNull(const void* a, const void* b, unsigned long n);
int Compare(const char* a, const char* b);
const void* AtChar(const void* p, char c, unsigned long n);
unsigned long StrLen(const char* s);
void CopyIncludingLast0(char* dst, const char* src);
// Whether `s` ends with `end`, folding only the letters a to z.
bool StrEndsWith(const char* s, const char* end);
// Finds no substring: null unless `sub` is null and `s` is non-empty, which answers `s`.
const char* AtStr(const char* s, const char* sub);

}  // namespace mem

// A growable byte array in equal, separately allocated pages: appending never moves bytes.
class PageArray {
  public:
    // Entries the page table gains each time it is full (never doubling); the usual first
    // capacity too.
    static constexpr uint32_t kTableGrowth = 16;

    PageArray(unsigned long capacity, unsigned long pageSize);
    ~PageArray() { DisposePages(); }
    PageArray(const PageArray&) = delete;
    PageArray& operator=(const PageArray&) = delete;

    void Create(unsigned long capacity, unsigned long pageSize);
    unsigned char* AddPage();
    void PushBytes(const unsigned char* src, unsigned long n);
    unsigned long GetBytes(unsigned char* dst, unsigned long n, unsigned long offset) const;
    int CopyTo(void* dst) const;
    int DeleteLastPage();
    int SetByteCountInLastPage(unsigned long n);
    void DisposePages();

    uint32_t Capacity() const { return capacity_; }
    uint32_t PageSize() const { return pageSize_; }
    uint32_t PageCount() const { return pageCount_; }
    uint32_t BytesInLastPage() const { return bytesInLastPage_; }
    unsigned char* Page(uint32_t index) const { return pages_[index]; }
    uint32_t Size() const;

  private:
    uint32_t capacity_ = 0;
    uint32_t pageSize_ = 0;
    uint32_t pageCount_ = 0;
    uint32_t bytesInLastPage_ = 0;
    unsigned char** pages_ = nullptr;
};

// Sorts `count` elements of `width` bytes in place, without allocation or recursion. Keys of
// few distinct values can make it quadratic: elements equal to the pivot all stay on one side
// of each partition, so 50,000 keys of two values take hundreds of millions of comparisons.
void Sort(void* base, unsigned long count, unsigned long width,
          int (*compare)(const void*, const void*));

}  // namespace kau
