// Switch between the Unicode converters' kernel levels, so that tests and
// fuzz targets can hold every level the processor has to the same results.
#pragma once

namespace kz {

// Kernel levels, each using the ones below it for what it does not take:
// word at a time (machines without SSE2, or the portable build), 16-byte
// SSE2 blocks, SSSE3 shuffles, AVX2 and AVX-512 (with VBMI2).
enum class UnicodeKernels { kWord, kSse2, kSsse3, kAvx2, kAvx512 };

// The widest level this processor runs within the build's cap (chosen when
// the library loads).
UnicodeKernels UnicodeBestKernels();
// Use the given level, bounded by the best one and by what the build has;
// returns the level now in use. Not meant to be switched while another
// thread is converting.
UnicodeKernels UnicodeUseKernels(UnicodeKernels kernels);

}  // namespace kz
