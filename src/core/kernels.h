// Every kernel of the program file: base name, argument types and variants. What each computes stands with its code in
// kernels/.
#pragma once

#include "core/kernel.h"

namespace corvalith::kernels {

using M = cl_mem;
using I = ClInt;
using F = float;

// Conversion; the element type is always half
inline constexpr KernelSignature<M, M> kFloatToHalf{"float2half", ElementTypes::kHalfOnly};
inline constexpr KernelSignature<M, M> kHalfToFloat{"half2float", ElementTypes::kHalfOnly};
inline constexpr KernelSignature<M, ClUint> kZeroBuf{"zeroBuf", ElementTypes::kHalfOnly};

// Input
inline constexpr KernelSignature<M, M> kInputData{"input_data"};
inline constexpr KernelSignature<M, M, M, I, I, I, I, I, I, I, F> kData{"data"};

// Padding and im2col
inline constexpr KernelSignature<M, M, I, I, I, I> kPad{"pad"};
inline constexpr KernelSignature<M, M, I, I, I, I, I, I, I, I, I, I, I, I> kConvert2Points{"convert_2points"};
inline constexpr KernelSignature<M, M, I, I, I, I, I, I, I, I, I, I, I, I, I> kConvertBlocked2{"convertBlocked2"};
inline constexpr KernelSignature<M, M, I, I, I, I, I, I, I, I, I, I, I> kConvertOptimized{"convert_optimized"};

/// All of them; a test holds this list against the program.
inline constexpr const KernelInfo* kAll[] = {
    &kFloatToHalf, &kHalfToFloat,    &kZeroBuf,         &kInputData,       &kData,
    &kPad,         &kConvert2Points, &kConvertBlocked2, &kConvertOptimized};

}  // namespace corvalith::kernels
