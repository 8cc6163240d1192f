// An in-memory stream that grows without bound: writing appends to a page array, reading reads
// from it at the stream's position.
#pragma once

#include "kau.h"
#include "mmstream.h"

class MMPageArrayStream : public MMStream {
  public:
    static constexpr uint32_t kDefaultPageSize = 4096;

    MMPageArrayStream(const MMAttri* attrs, unsigned count) : MMStream(attrs, count) {}
    ~MMPageArrayStream() override { MMPageArrayStream::Null(); }

    static MMStream* New(const MMAttri* attrs, unsigned count);

    unsigned Get(void* buf, unsigned n) override;
    int Null() override;
    int Play() override;
    unsigned Put(const void* buf, unsigned n) override;
    int Ready() override;
    int Seek(long offset, MMStreamSeekFrom from) override;
    int Size(unsigned long& size) override;
    int Tell(unsigned long& pos) override;

  private:
    uint32_t PageSizeAttri();

    kau::PageArray* pages_ = nullptr;
    uint32_t position_ = 0;
    uint32_t pageSize_ = 0;
};

// Registers the page-array stream in the stream registry on the first call; later calls answer
// the remembered result.
int MMPageArrayStreamRegistered();
