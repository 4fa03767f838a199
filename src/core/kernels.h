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

// Per element
inline constexpr KernelSignature<M, M, I, I, I> kRelu{"relu"};
inline constexpr KernelSignature<M, M, I, I, I> kTanh{"tanh"};
inline constexpr KernelSignature<M, M, M, I, I, I> kPRelu{"prelu"};
inline constexpr KernelSignature<M, M, F, F, I, I, I, I> kPower{"power"};
inline constexpr KernelSignature<M, M, M, M, I, I, I> kScale{"scale"};
inline constexpr KernelSignature<M, M, M, M, I, I, I> kBatchNorm{"batch_norm"};
inline constexpr KernelSignature<M, M, I, I, F> kBatchNorm2{"batch_norm2"};
inline constexpr KernelSignature<M, M> kDropout{"dropout"};

// Shape and combining
inline constexpr KernelSignature<M, M, I, I, I> kConcat{"concat"};
inline constexpr KernelSignature<M, M, I, I, I, I> kConcatAxis2{"concat_axis2"};
inline constexpr KernelSignature<M, M, M> kEltwiseProdZeroOne{"eltwise_prod_zero_one"};
inline constexpr KernelSignature<M, M> kEltwiseProdTwoMore{"eltwise_prod_two_more"};
inline constexpr KernelSignature<M, M, M> kEltwiseMaxZeroOne{"eltwise_max_zero_one"};
inline constexpr KernelSignature<M, M> kEltwiseMaxTwoMore{"eltwise_max_two_more"};
inline constexpr KernelSignature<M, M, M, F, F, I, I, I> kEltwiseSumZeroOne{"eltwise_sum_zero_one"};
inline constexpr KernelSignature<M, M, F> kEltwiseSumTwoMore{"eltwise_sum_two_more"};
inline constexpr KernelSignature<M, M, I, I, I, I, I, I, I, I> kCrop{"crop"};
inline constexpr KernelSignature<M, M, I> kFlatten{"flatten"};
inline constexpr KernelSignature<M, M> kReshape{"reshape"};
inline constexpr KernelSignature<M, M, I, I, I, I, I, I, I, I> kSwapAxes{"swapaxes"};
inline constexpr KernelSignature<M, M, M, M, I, I, I> kSoftmaxCell{"softmaxCell"};

// Detection
inline constexpr KernelSignature<M, M, M, M, M, I, I, I, I, F, F, F, I, I, I, I> kPriorBox{"prior_box"};

// Padding and im2col
inline constexpr KernelSignature<M, M, I, I, I, I> kPad{"pad"};
inline constexpr KernelSignature<M, M, I, I, I, I, I, I, I, I, I, I, I, I> kConvert2Points{"convert_2points"};
inline constexpr KernelSignature<M, M, I, I, I, I, I, I, I, I, I, I, I, I, I> kConvertBlocked2{"convertBlocked2"};
inline constexpr KernelSignature<M, M, I, I, I, I, I, I, I, I, I, I, I> kConvertOptimized{"convert_optimized"};

// Convolution as a product
inline constexpr KernelSignature<M, M, I, I, I, I> kAlignWeightGemm{"alignWeight_gemm", ElementTypes::kBoth,
                                                                    Twins::kBoth};
inline constexpr KernelSignature<M, M, M, M, I, I, I, I, I> kGemmBlocked{"gemmBlocked", ElementTypes::kBoth,
                                                                         Twins::kBoth};
inline constexpr KernelSignature<M, M, I, I> kAlignWeight1x4{"alignWeight_1x4", ElementTypes::kBoth, Twins::kBoth};
inline constexpr KernelSignature<M, M, I, I> kAlignWeight1x8{"alignWeight_1x8", ElementTypes::kBoth, Twins::kBoth};
inline constexpr KernelSignature<M, M, M, M, I, I, I, I> kGemmBlock2x4{"gemmBlock2x4", ElementTypes::kBoth,
                                                                       Twins::kBoth};
inline constexpr KernelSignature<M, M, M, M, I, I, I, I> kGemmBlock2x8{"gemmBlock2x8", ElementTypes::kHalfOnly,
                                                                       Twins::kBoth};
inline constexpr KernelSignature<M, M, M, M, I, I, I, I, I> kConv11{"conv11", ElementTypes::kBoth, Twins::kBoth};

// Depthwise convolution
inline constexpr KernelSignature<M, M, M, M, I, I, I, I, I> kDepthwise3x3S1{"depthwise_conv_3x3s1_4P",
                                                                            ElementTypes::kBoth, Twins::kBoth};
inline constexpr KernelSignature<M, M, M, M, I, I, I, I, I> kDepthwise3x3S1P1{"depthwise_conv_3x3s1p1_4P",
                                                                              ElementTypes::kBoth, Twins::kWithActOnly};
inline constexpr KernelSignature<M, M, M, M, I, I, I, I, I> kDepthwise3x3S2{"depthwise_conv_3x3s2", ElementTypes::kBoth,
                                                                            Twins::kBoth};
inline constexpr KernelSignature<M, M, M, M, I, I, I, I, I> kDepthwise3x3S2P1{"depthwise_conv_3x3s2p1",
                                                                              ElementTypes::kBoth, Twins::kWithActOnly};
inline constexpr KernelSignature<M, M, M, M, I, I, I, I, I, I, I, I> kDepthwise{"depthwise_conv", ElementTypes::kBoth,
                                                                                Twins::kBoth};

// Winograd convolution
inline constexpr KernelSignature<M, M, I, I, I, I, I, I, I, I, I> kFast3x31{"Fast3x3_1"};
inline constexpr KernelSignature<M, M, M, M, I, I, I, I, I, I> kFast3x32{"Fast3x3_2", ElementTypes::kBoth,
                                                                         Twins::kBoth};
inline constexpr KernelSignature<M, M, M, M, I, I, I, I, I, I, I, I> kFast3x32Optimized{
    "Fast3x3_2_optimized", ElementTypes::kBoth, Twins::kBoth};
inline constexpr KernelSignature<M, M, I, I, I, I, I, I, I> kFast3x311x8{"Fast3x3_1_1x8", ElementTypes::kFloatOnly};
inline constexpr KernelSignature<M, M, I, I, I, I, I, I, I, I> kFast3x312x4{"Fast3x3_1_2x4"};
inline constexpr KernelSignature<M, M, I, I, I, I, I, I, I, I> kFast3x312x8{"Fast3x3_1_2x8", ElementTypes::kHalfOnly};
inline constexpr KernelSignature<M, M, M, M, I, I, I, I, I, I> kFast3x31x8Split{"Fast3x3_2_optimized_1x8_splite",
                                                                                ElementTypes::kFloatOnly};
inline constexpr KernelSignature<M, M, M, M, I, I, I, I, I, I, I> kFast3x32x4Split{"Fast3x3_2_optimized_2x4_splite"};
inline constexpr KernelSignature<M, M, M, M, I, I, I, I, I, I, I> kFast3x32x8Split{"Fast3x3_2_optimized_2x8_splite",
                                                                                   ElementTypes::kHalfOnly};
inline constexpr KernelSignature<M, M, M, M, I, I, I, I, I, I> kFast3x31x8Merge{"Fast3x3_2_optimized_1x8_merge",
                                                                                ElementTypes::kFloatOnly, Twins::kBoth};
inline constexpr KernelSignature<M, M, M, M, I, I, I, I, I, I> kFast3x32x4Merge{"Fast3x3_2_optimized_2x4_merge",
                                                                                ElementTypes::kBoth, Twins::kBoth};
inline constexpr KernelSignature<M, M, M, M, I, I, I, I, I, I> kFast3x32x8Merge{"Fast3x3_2_optimized_2x8_merge",
                                                                                ElementTypes::kHalfOnly, Twins::kBoth};

// Fully connected
inline constexpr KernelSignature<M, M, M, I, I> kFcSplit{"fc_split"};
inline constexpr KernelSignature<M, M, I, I, M> kFcMerge{"fc_merge"};
inline constexpr KernelSignature<M, M, I, I, I> kFcInterleave{"fc_interleave_8x1"};
inline constexpr KernelSignature<M, M, M, I, I, I, I, I> kFcSplit8x1{"fc_splitopt_8x1"};
inline constexpr KernelSignature<M, M, M, I, I, I, I> kFcMerge8x1{"fc_mergeopt_8x1"};
inline constexpr KernelSignature<M, M, I, I, I> kFcInterleaveGemv{"fc_interleave_8x1_gemv"};
inline constexpr KernelSignature<M, M, M, M, I, I, I> kFcGemv8x1{"fc_8x1_gemv"};

// Deconvolution
inline constexpr KernelSignature<M, M, I, I, I> kMatrixTrans{"matrixTrans"};
inline constexpr KernelSignature<M, M, I, I, I> kMatrixTrans8x1{"deconv_8x1_matrixTrans"};
inline constexpr KernelSignature<M, M, M, I, I, I, I, I> kConvBackGemm{"convBackGemmRXR"};
inline constexpr KernelSignature<M, M, M, I, I, I, I, I> kDeconvGemm1x8{"deconvGemm_1x8"};
inline constexpr KernelSignature<M, M, M, I, I, I, I, I, I, I, I, I, I, I> kConvertBottomDiff{"convertBottomDiff2"};
inline constexpr KernelSignature<M, M, M, I, I, I, I, I, I, I, I, I, I, I> kCol2Img1x8{"col2img_1x8"};

// Pooling and local response normalisation
inline constexpr KernelSignature<M, M, I, I, I, I, I, I, I, I, I, I> kMaxPooling{"maxpooling"};
inline constexpr KernelSignature<M, M, I, I, I, I, I, I, I, I, I, I> kAvePooling{"avepooling"};
inline constexpr KernelSignature<M, M, I, F, F, F, I, I, I> kNorm{"norm"};

/// All of them; a test holds this list against the program.
inline constexpr const KernelInfo* kAll[] = {&kFloatToHalf,
                                             &kHalfToFloat,
                                             &kZeroBuf,
                                             &kInputData,
                                             &kData,
                                             &kRelu,
                                             &kTanh,
                                             &kPRelu,
                                             &kPower,
                                             &kScale,
                                             &kBatchNorm,
                                             &kBatchNorm2,
                                             &kDropout,
                                             &kConcat,
                                             &kConcatAxis2,
                                             &kEltwiseProdZeroOne,
                                             &kEltwiseProdTwoMore,
                                             &kEltwiseMaxZeroOne,
                                             &kEltwiseMaxTwoMore,
                                             &kEltwiseSumZeroOne,
                                             &kEltwiseSumTwoMore,
                                             &kCrop,
                                             &kFlatten,
                                             &kReshape,
                                             &kSwapAxes,
                                             &kSoftmaxCell,
                                             &kPriorBox,
                                             &kPad,
                                             &kConvert2Points,
                                             &kConvertBlocked2,
                                             &kConvertOptimized,
                                             &kAlignWeightGemm,
                                             &kGemmBlocked,
                                             &kAlignWeight1x4,
                                             &kAlignWeight1x8,
                                             &kGemmBlock2x4,
                                             &kGemmBlock2x8,
                                             &kConv11,
                                             &kDepthwise3x3S1,
                                             &kDepthwise3x3S1P1,
                                             &kDepthwise3x3S2,
                                             &kDepthwise3x3S2P1,
                                             &kDepthwise,
                                             &kFast3x31,
                                             &kFast3x32,
                                             &kFast3x32Optimized,
                                             &kFast3x311x8,
                                             &kFast3x312x4,
                                             &kFast3x312x8,
                                             &kFast3x31x8Split,
                                             &kFast3x32x4Split,
                                             &kFast3x32x8Split,
                                             &kFast3x31x8Merge,
                                             &kFast3x32x4Merge,
                                             &kFast3x32x8Merge,
                                             &kFcSplit,
                                             &kFcMerge,
                                             &kFcInterleave,
                                             &kFcSplit8x1,
                                             &kFcMerge8x1,
                                             &kFcInterleaveGemv,
                                             &kFcGemv8x1,
                                             &kMatrixTrans,
                                             &kMatrixTrans8x1,
                                             &kConvBackGemm,
                                             &kDeconvGemm1x8,
                                             &kConvertBottomDiff,
                                             &kCol2Img1x8,
                                             &kMaxPooling,
                                             &kAvePooling,
                                             &kNorm};

}  // namespace corvalith::kernels
