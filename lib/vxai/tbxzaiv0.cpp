// The element vector: the growable array in which a bag keeps its items.
//
// Elements are stored by value in places of `slotSize` bytes that follow the
// slot table in one block; slots[i] is precomputed as the address of place i,
// so reading an element costs one load.  The table is rebuilt only when the
// vector grows, by doubling; it never shrinks.
#include <string.h>

#include "vxai_internal.h"

namespace {

constexpr char kVectorEyeCatcher[4] = {'Z', 'V', 'E', 'C'};

unsigned long traceAddress(const void *address) {
  return static_cast<unsigned long>(reinterpret_cast<uintptr_t>(address));
}

void fillSlotTable(zaiVECTOR *vector) {
  auto *places = reinterpret_cast<char *>(vector->slots + vector->capacity);
  for (int32_t i = 0; i < vector->capacity; ++i) vector->slots[i] = places + i * vector->slotSize;
}

// Bytes of one block holding `capacity` slot-table entries (one address
// each) and places, or -1 when that does not fit in 32 bits.
int32_t blockSize(int32_t capacity, int32_t slotSize) {
  int64_t size = static_cast<int64_t>(capacity) * (slotSize + static_cast<int64_t>(sizeof(void *)));
  return size > INT32_MAX ? -1 : static_cast<int32_t>(size);
}

int32_t checkEyeCatcher(const zaiVECTOR *vector, int32_t function) {
  if (memcmp(vector->eyeCatcher, kVectorEyeCatcher, 4) == 0) return 0;
  zaiReportDamage(function, VEC_INVALID_VECTOR, 0, "Invalid zaiVECTOR", vector, 64);
  return VEC_INVALID_VECTOR;
}

// Runs after the eye-catcher check whatever it found: a damaged vector with a
// bad index gives two reports, and the index failure is the one returned.
int32_t checkIndex(const zaiVECTOR *vector, int32_t index, int32_t function, int32_t result) {
  if (index >= 0 && index <= vector->count - 1) return result;
  zaiReportDamage(function, VEC_INVALID_INDEX, index, "Invalid index", vector,
                  vector->recordLength);
  return VEC_INVALID_INDEX;
}

int32_t grow(zaiVECTOR *vector) {
  int32_t capacity = vector->count > 0 ? vector->count * 2 : 1;
  int32_t size = vector->count > INT32_MAX / 2 ? -1 : blockSize(capacity, vector->slotSize);
  void *block = nullptr;
  if (size < 0 || svcGetMem(ZAI_COMPONENT, ZAIFN_zaiVectorAdd, size, 0, &block) != 0)
    return VEC_NO_STORAGE;
  auto **slots = static_cast<void **>(block);
  if (vector->capacity > 0)
    memcpy(slots + capacity, vector->slots[0],
           static_cast<size_t>(vector->capacity) * static_cast<size_t>(vector->slotSize));
  svcFreeMem(ZAI_COMPONENT, vector->slots);
  vector->slots = slots;
  vector->capacity = capacity;
  fillSlotTable(vector);
  return 0;
}

}  // namespace

extern "C" {

int32_t zaiVectorCreate(int32_t initialSpace, int32_t elementSize, zaiVECTOR **vector) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiVectorCreate);
  zaiTraceParms(&frame, "InitialSpace:%d, ElementSize:%d", initialSpace, elementSize);
  int32_t result = VEC_NO_STORAGE;
  int32_t slotSize = (elementSize + 3) & ~3;
  int32_t size = initialSpace < 0 ? -1 : blockSize(initialSpace, slotSize);
  void *block = nullptr;
  void *record = nullptr;
  if (size >= 0 && svcGetMem(ZAI_COMPONENT, ZAIFN_zaiVectorCreate, size, 0, &block) == 0) {
    if (svcGetMem(ZAI_COMPONENT, ZAIFN_zaiVectorCreate, sizeof(zaiVECTOR), 0, &record) != 0) {
      svcFreeMem(ZAI_COMPONENT, block);
    } else {
      auto *created = static_cast<zaiVECTOR *>(record);
      memcpy(created->eyeCatcher, kVectorEyeCatcher, 4);
      created->recordLength = sizeof(zaiVECTOR);
      created->capacity = initialSpace;
      created->count = 0;
      created->elementSize = elementSize;
      created->slotSize = slotSize;
      created->slots = static_cast<void **>(block);
      fillSlotTable(created);
      *vector = created;
      result = 0;
    }
  }
  zaiFramePop(&frame, result);
  return result;
}

int32_t zaiVectorDestroy(zaiVECTOR *vector) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiVectorDestroy);
  zaiTraceParms(&frame, "pVector:%.8lX", traceAddress(vector));
  // A vector that is not recognised is left alone: freeing what it points
  // to could release someone else's memory.
  int32_t result = checkEyeCatcher(vector, ZAIFN_zaiVectorDestroy);
  if (result == 0) {
    svcFreeMem(ZAI_COMPONENT, vector->slots);
    svcFreeMem(ZAI_COMPONENT, vector);
  }
  zaiFramePop(&frame, result);
  return result;
}

int32_t zaiVectorAdd(zaiVECTOR *vector, const void *element) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiVectorAdd);
  zaiTraceParms(&frame, "pVector:%.8lX, pElement:%.8lX", traceAddress(vector),
                traceAddress(element));
  int32_t result = checkEyeCatcher(vector, ZAIFN_zaiVectorAdd);
  if (result == 0 && vector->count == vector->capacity) result = grow(vector);
  if (result == 0) {
    memcpy(vector->slots[vector->count], element, static_cast<size_t>(vector->elementSize));
    ++vector->count;
  }
  zaiFramePop(&frame, result);
  return result;
}

int32_t zaiVectorRemoveAt(zaiVECTOR *vector, int32_t index) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiVectorRemoveAt);
  zaiTraceParms(&frame, "pVector:%.8lX, index:%d", traceAddress(vector), index);
  int32_t result = checkEyeCatcher(vector, ZAIFN_zaiVectorRemoveAt);
  result = checkIndex(vector, index, ZAIFN_zaiVectorRemoveAt, result);
  if (result == 0) {
    // The vacated last place keeps its old bytes.
    int32_t later = vector->count - index - 1;
    if (later > 0)
      memmove(vector->slots[index], vector->slots[index + 1],
              static_cast<size_t>(later) * static_cast<size_t>(vector->slotSize));
    --vector->count;
  }
  zaiFramePop(&frame, result);
  return result;
}

int32_t zaiVectorSetAt(zaiVECTOR *vector, const void *element, int32_t index) {
  zaiFRAME frame = zaiFramePush(ZAI_COMPONENT, ZAIFN_zaiVectorSetAt);
  zaiTraceParms(&frame, "pVector:%.8lX, pElement:%.8lX, index:%d", traceAddress(vector),
                traceAddress(element), index);
  int32_t result = checkEyeCatcher(vector, ZAIFN_zaiVectorSetAt);
  result = checkIndex(vector, index, ZAIFN_zaiVectorSetAt, result);
  // A set copies the whole slot, an add only the element: callers of set
  // pass a full slot.
  if (result == 0) memcpy(vector->slots[index], element, static_cast<size_t>(vector->slotSize));
  zaiFramePop(&frame, result);
  return result;
}

}  // extern "C"
