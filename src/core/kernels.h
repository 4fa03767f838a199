// Every kernel of the program file: base name, argument types and variants. What each computes stands with its code in
// kernels/.
#pragma once

#include "core/kernel.h"

namespace corvalith::kernels {

// Conversion; their element type is always half.
inline constexpr KernelSignature<cl_mem, cl_mem> kFloatToHalf{"float2half", ElementTypes::kHalfOnly};
inline constexpr KernelSignature<cl_mem, cl_mem> kHalfToFloat{"half2float", ElementTypes::kHalfOnly};
inline constexpr KernelSignature<cl_mem, ClUint> kZeroBuf{"zeroBuf", ElementTypes::kHalfOnly};

// Input
inline constexpr KernelSignature<cl_mem, cl_mem> kInputData{"input_data"};
inline constexpr KernelSignature<cl_mem, cl_mem, cl_mem, ClInt, ClInt, ClInt, ClInt, ClInt, ClInt, ClInt, float> kData{
    "data"};

// Padding and im2col
inline constexpr KernelSignature<cl_mem, cl_mem, ClInt, ClInt, ClInt, ClInt> kPad{"pad"};
inline constexpr KernelSignature<cl_mem, cl_mem, ClInt, ClInt, ClInt, ClInt, ClInt, ClInt, ClInt, ClInt, ClInt, ClInt,
                                 ClInt, ClInt>
    kConvert2Points{"convert_2points"};
inline constexpr KernelSignature<cl_mem, cl_mem, ClInt, ClInt, ClInt, ClInt, ClInt, ClInt, ClInt, ClInt, ClInt, ClInt,
                                 ClInt, ClInt, ClInt>
    kConvertBlocked2{"convertBlocked2"};
inline constexpr KernelSignature<cl_mem, cl_mem, ClInt, ClInt, ClInt, ClInt, ClInt, ClInt, ClInt, ClInt, ClInt, ClInt,
                                 ClInt>
    kConvertOptimized{"convert_optimized"};

/// All of them; a test holds this list against the program.
inline constexpr const KernelInfo* kAll[] = {
    &kFloatToHalf, &kHalfToFloat,    &kZeroBuf,         &kInputData,       &kData,
    &kPad,         &kConvert2Points, &kConvertBlocked2, &kConvertOptimized};

}  // namespace corvalith::kernels
