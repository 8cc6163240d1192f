// A stream over a file of the local file system, opened by the mmIdFileName and mmIdFileMode
// attributes (mode "rb" when none is given).
#pragma once

#include <cstdio>

#include "mmstream.h"

class MMFileStream : public MMStream {
  public:
    MMFileStream(const MMAttri* attrs, unsigned count) : MMStream(attrs, count) {}
    ~MMFileStream() override { MMFileStream::Null(); }

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
    int Open();
    int Rewind();
    uint32_t MeasureSize();

    FILE* file_ = nullptr;
};

// Registers the file stream in the stream registry on the first call; later calls answer the
// remembered result.
int MMFileStreamRegistered();
