#ifndef TARVO_SRC_FOUNDATION_JSONWRITER_H
#define TARVO_SRC_FOUNDATION_JSONWRITER_H

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstdlib>
#include <new>

namespace Tarvo::Impl {

/// The JSON library does not look whether it got its memory.
struct JsonMemory {
  static const bool kNeedFree = true;
  void* Malloc(std::size_t size) { return checked(std::malloc(size), size); }
  void* Realloc(void* old, std::size_t, std::size_t size) {
    if (size != 0) return checked(std::realloc(old, size), size);
    std::free(old);
    return nullptr;
  }
  static void Free(void* memory) { std::free(memory); }

 private:
  static void* checked(void* memory, std::size_t size) {
    if (memory == nullptr && size != 0) throw std::bad_alloc();
    return memory;
  }
};

using JsonBuffer = rapidjson::GenericStringBuffer<rapidjson::UTF8<>, JsonMemory>;
using JsonWriter = rapidjson::Writer<JsonBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>, JsonMemory>;

}  // namespace Tarvo::Impl

#endif
