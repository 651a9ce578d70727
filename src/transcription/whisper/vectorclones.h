#pragma once

// One copy of a function per instruction set, chosen at load time: loops written so the compiler can vectorise
// them run several times faster with AVX-512 or AVX2. For the inference sources only; not for headers' users.
#if defined(__x86_64__) && !defined(__clang__) && !defined(__SANITIZE_ADDRESS__)
#define QM_VECTOR_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
#else
#define QM_VECTOR_CLONES
#endif
