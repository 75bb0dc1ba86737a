// Switch between the Base64 kernel levels, so that tests and fuzz targets can
// hold every level to the same results on one machine.
#pragma once

namespace kz {

// Kernel levels, each using the ones below it for what it does not take.
enum class CodecKernels { kScalar, kSsse3, kAvx2, kAvx512 };

// The widest level this processor runs (chosen when the library loads).
CodecKernels CodecBestKernels();
// Use the given level, or the best one this processor has if that is lower;
// returns the level now in use. Not meant to be switched while another
// thread is encoding or decoding.
CodecKernels CodecUseKernels(CodecKernels kernels);

// Whether this processor can run the vector kernels.
bool CodecVectorKernelsAvailable();
// Use the vector kernels (when available) or the scalar code alone; returns
// whether the vector kernels are now in use. Not meant to be switched while
// another thread is encoding or decoding.
bool CodecUseVectorKernels(bool on);

}  // namespace kz
