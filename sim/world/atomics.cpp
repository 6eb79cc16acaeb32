// Atomics as points at which another thread may go on. Sources that decide by atomics are compiled with the marks
// that a race detector puts at each access of memory, and these are the functions that the marks call: those of plain
// accesses do nothing, those of atomics do what they are for, behind a point.
#include "sim/world/world.h"

namespace {

void AtomicPoint(void *pCaller)
{
    if (t_pSimThread != nullptr && t_cInWorld == 0) {
        CInWorld const inWorld;
        g_world.Point("atomic", pCaller);
    }
}

} // namespace

// The names are the compiler's.
#pragma GCC diagnostic ignored "-Wpedantic"
#define POINT() AtomicPoint(__builtin_return_address(0))

#define ATOMIC_STEP(type, bits, name, builtin)                                                     \
    type __tsan_atomic##bits##_##name(type volatile *p, type v, int)                               \
    {                                                                                              \
        POINT();                                                                                   \
        return builtin(p, v, __ATOMIC_SEQ_CST);                                                    \
    }

#define ATOMIC_COMPARE(type, bits, name)                                                           \
    int __tsan_atomic##bits##_compare_exchange_##name(type volatile *p, type *pWanted, type v,     \
                                                      int, int)                                    \
    {                                                                                              \
        POINT();                                                                                   \
        return __atomic_compare_exchange_n(p, pWanted, v, false, __ATOMIC_SEQ_CST,                 \
                                           __ATOMIC_SEQ_CST);                                      \
    }

#define ATOMICS(type, bits)                                                                        \
    type __tsan_atomic##bits##_load(type const volatile *p, int)                                   \
    {                                                                                              \
        POINT();                                                                                   \
        return __atomic_load_n(p, __ATOMIC_SEQ_CST);                                               \
    }                                                                                              \
    void __tsan_atomic##bits##_store(type volatile *p, type v, int)                                \
    {                                                                                              \
        POINT();                                                                                   \
        __atomic_store_n(p, v, __ATOMIC_SEQ_CST);                                                  \
    }                                                                                              \
    ATOMIC_STEP(type, bits, exchange, __atomic_exchange_n)                                         \
    ATOMIC_STEP(type, bits, fetch_add, __atomic_fetch_add)                                         \
    ATOMIC_STEP(type, bits, fetch_sub, __atomic_fetch_sub)                                         \
    ATOMIC_STEP(type, bits, fetch_and, __atomic_fetch_and)                                         \
    ATOMIC_STEP(type, bits, fetch_or, __atomic_fetch_or)                                           \
    ATOMIC_STEP(type, bits, fetch_xor, __atomic_fetch_xor)                                         \
    ATOMIC_COMPARE(type, bits, strong)                                                             \
    ATOMIC_COMPARE(type, bits, weak)

#define PLAIN(name)                                                                                \
    void __tsan_##name(void *) {}

#define PLAINS(bytes)                                                                              \
    PLAIN(read##bytes)                                                                             \
    PLAIN(write##bytes)                                                                            \
    PLAIN(unaligned_read##bytes)                                                                   \
    PLAIN(unaligned_write##bytes)                                                                  \
    PLAIN(volatile_read##bytes)                                                                    \
    PLAIN(volatile_write##bytes)

extern "C" {

void __tsan_init() {}
PLAIN(func_entry)
void __tsan_func_exit() {}
void __tsan_vptr_update(void **, void *) {}
PLAIN(vptr_read)
void __tsan_read_range(void *, unsigned long) {}
void __tsan_write_range(void *, unsigned long) {}
void __tsan_atomic_thread_fence(int) {}
void __tsan_atomic_signal_fence(int) {}
PLAINS(1)
PLAINS(2)
PLAINS(4)
PLAINS(8)
PLAINS(16)
ATOMICS(unsigned char, 8)
ATOMICS(unsigned short, 16)
ATOMICS(unsigned, 32)
ATOMICS(unsigned long, 64)

} // extern "C"
