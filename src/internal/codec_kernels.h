// Switch between the vector and the scalar Base64 kernels, so that tests and
// fuzz targets can hold both to the same results on one machine.
#pragma once

namespace kz {

// Whether this processor can run the vector kernels.
bool CodecVectorKernelsAvailable();
// Use the vector kernels (when available) or the scalar code alone; returns
// whether the vector kernels are now in use. Not meant to be switched while
// another thread is encoding or decoding.
bool CodecUseVectorKernels(bool on);

}  // namespace kz
