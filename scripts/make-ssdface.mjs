// Makes the Caffe form of an SSD-MobileNetV1 face detector from the weights of the npm package @vladmandic/face-api
// (MIT License, Copyright (c) Vladimir Mandic): ssdface512.prototxt and ssdface512.caffemodel.
//
// usage: node make-ssdface.mjs PACKAGE-FOLDER OUTPUT-FOLDER [--compare OTHER.caffemodel]
//
// What is rewritten, exactly, into layers that Caffe knows:
// - the package's weights are 8-bit: value = byte * scale + min;
// - TensorFlow pads a 3 x 3 convolution of stride 2 at the end only: a 4 x 4 kernel with a zero first row and column and
//   one pixel of padding on all sides computes the same;
// - min(max(x, 0), 6) is max(x, 0) - max(max(x, 0) - 6, 0);
// - batch normalisation of the depthwise convolutions becomes part of their weights;
// - box predictors give y, x, h, w where Caffe's prior boxes want x, y, w, h;
// - the sigmoid of a face's score z is the second value of softmax(0, z): the background's channels are zeros;
// - prior boxes always begin with a square one, which the first predictor lacks for its second size: it gets channels
//   that never detect anything.
import { readFileSync, writeFileSync, mkdirSync } from 'node:fs';
import { join } from 'node:path';

const [packageFolder, outputFolder, compareFlag, compareFile] = process.argv.slice(2);
if (!outputFolder || (compareFlag && !(compareFlag === '--compare' && compareFile))) {
  console.error('usage: node make-ssdface.mjs PACKAGE-FOLDER OUTPUT-FOLDER [--compare OTHER.caffemodel]');
  process.exit(2);
}

// ---- the package's weights: name -> {shape, data}
function readWeights(folder) {
  const manifest = JSON.parse(readFileSync(join(folder, 'ssd_mobilenetv1_model-weights_manifest.json'), 'utf8'));
  const bytes = readFileSync(join(folder, manifest[0].paths[0]));
  const weights = new Map();
  let offset = 0;
  for (const { name, shape, quantization } of manifest[0].weights) {
    const count = shape.reduce((a, b) => a * b, 1);
    if (quantization) {
      const { scale, min } = quantization;
      weights.set(name, { shape, data: Float32Array.from(bytes.subarray(offset, offset + count), (q) => q * scale + min) });
    }
    offset += count * (quantization ? 1 : 4);
  }
  return weights;
}
const weights = readWeights(join(packageFolder, 'model'));
function take(name) {
  const found = weights.get(name);
  if (!found) throw new Error(`the package has no weights called ${name}`);
  return found;
}

// ---- the network as text, with the blobs of its convolutions beside it
let text = 'name: "ssdface512"\ninput: "data"\ninput_shape { dim: 1 dim: 3 dim: 512 dim: 512 }\n';
const blobs = [];  // {name, weights, shape, biases}

function layer(name, type, bottoms, parameters = '') {
  const lines = [`name: "${name}"`, `type: "${type}"`, ...bottoms.map((b) => `bottom: "${b}"`), `top: "${name}"`];
  if (parameters) lines.push(parameters);
  text += `layer {\n  ${lines.join('\n  ')}\n}\n`;
  return name;
}

// `kernel` is [height, width, input, output] as TensorFlow keeps it.
function convolution(name, bottom, kernel, biases, { stride = 1, group = 1 } = {}) {
  const [k, , inputs, outputs] = kernel.shape;
  const extra = stride === 2 ? 1 : 0;  // end padding: one zero row and column before the kernel
  const size = k + extra;
  const out = group > 1 ? inputs : outputs;
  const perGroup = group > 1 ? 1 : inputs;
  const data = new Float32Array(out * perGroup * size * size);
  for (let o = 0; o < out; ++o)
    for (let i = 0; i < perGroup; ++i)
      for (let y = 0; y < k; ++y)
        for (let x = 0; x < k; ++x) {
          const from = group > 1 ? (y * k + x) * inputs + o : ((y * k + x) * inputs + i) * outputs + o;
          data[((o * perGroup + i) * size + y + extra) * size + x + extra] = kernel.data[from];
        }
  blobs.push({ name, shape: [out, perGroup, size, size], data, biases });
  const pad = k === 3 ? 1 : 0;
  return layer(name, 'Convolution', [bottom],
    `convolution_param { num_output: ${out} stride: ${stride} group: ${group} kernel_size: ${size} pad: ${pad} }`);
}

function relu6(x) {
  const a = layer(`${x}_r6_a`, 'ReLU', [x]);
  const s = layer(`${x}_r6_s`, 'Power', [a], 'power_param { power: 1.0 scale: 1.0 shift: -6.0 }');
  const b = layer(`${x}_r6_b`, 'ReLU', [s]);
  return layer(`${x}_r6`, 'Eltwise', [a, b], 'eltwise_param { operation: SUM coeff: 1.0 coeff: -1.0 }');
}

const pointwise = (name, bottom, source, stride = 1) =>
  relu6(convolution(name, bottom, take(`${source}/weights`), take(`${source}/convolution_bn_offset`).data, { stride }));

function depthwise(name, bottom, source, stride) {
  const kernel = take(`${source}/depthwise_weights`);
  const [gamma, beta, mean, variance] = ['gamma', 'beta', 'moving_mean', 'moving_variance']
    .map((part) => take(`${source}/BatchNorm/${part}`).data);
  const channels = kernel.shape[2];
  const factor = Array.from(gamma, (g, c) => g / Math.sqrt(variance[c] + 0.0010000000474974513));
  const folded = { shape: kernel.shape, data: kernel.data.map((w, i) => w * factor[i % channels]) };
  const biases = Float32Array.from(beta, (b, c) => b - mean[c] * factor[c]);
  return relu6(convolution(name, bottom, folded, biases, { stride, group: channels }));
}

// Some of a 1 x 1 predictor's output channels in a new order; null makes a channel of zeros with the bias `dummy`.
function selected(source, channels, dummy = []) {
  const kernel = take(`${source}/weights`), biases = take(`${source}/biases`).data;
  const [, , inputs, outputs] = kernel.shape;
  const data = new Float32Array(inputs * channels.length);
  channels.forEach((from, to) => {
    for (let i = 0; i < inputs && from !== null; ++i) data[i * channels.length + to] = kernel.data[i * outputs + from];
  });
  return [{ shape: [1, 1, inputs, channels.length], data },
    Float32Array.from(channels, (from, to) => (from === null ? dummy[to % dummy.length] : biases[from]))];
}

// ---- trunk
const strided = [2, 4, 6, 12];
let top = pointwise('conv0', 'data', 'MobilenetV1/Conv2d_0_pointwise', 2);
const features = {};
for (let i = 1; i <= 13; ++i) {
  top = depthwise(`dw${i}`, top, `MobilenetV1/Conv2d_${i}_depthwise`, strided.includes(i) ? 2 : 1);
  top = features[`pw${i}`] = pointwise(`pw${i}`, top, `MobilenetV1/Conv2d_${i}_pointwise`);
}
for (let i = 0; i < 8; ++i) {
  top = features[`extra${i}`] = pointwise(`extra${i}`, top, `Prediction/Conv2d_${i}_pointwise`, i % 2 ? 2 : 1);
}

// ---- heads: anchors by their position in the predictor, in the order of the prior boxes
const heads = [
  { name: '0a', predictor: 0, from: 'pw11', anchors: [0], min: 51.2, step: 16, ratios: [] },
  { name: '0b', predictor: 0, from: 'pw11', anchors: [null, 1, 2], min: 102.4, step: 16, ratios: [2, 0.5] },
];
['pw13', 'extra1', 'extra3', 'extra5', 'extra7'].forEach((from, i) => heads.push({
  name: `${i + 1}`, predictor: i + 1, from, anchors: [0, 1, 2, 3, 4, 5], min: [179.2, 256, 332.8, 409.6, 486.4][i],
  max: [256, 332.8, 409.6, 486.4, 512][i], step: 32 << i, ratios: [2, 0.5, 3, 0.3333] }));

const kClasses = 3;  // of which only the second is a face
const real = (v) => (Number.isInteger(v) ? `${v}.0` : `${v}`);
for (const { name, predictor, from, anchors, min, max, step, ratios } of heads) {
  const source = `Prediction/BoxPredictor_${predictor}`;
  const box = anchors.flatMap((a) => [1, 0, 3, 2].map((part) => (a === null ? null : a * 4 + part)));
  const score = anchors.flatMap((a) => [null, a === null ? null : a * kClasses + 1]);
  for (const [kind, part, channels, dummy] of [['loc', 'BoxEncodingPredictor', box, [0]],
    ['conf', 'ClassPredictor', score, [0, -60]]]) {
    const made = convolution(`${kind}${name}`, features[from], ...selected(`${source}/${part}`, channels, dummy));
    const permuted = layer(`${made}_p`, 'Permute', [made], 'permute_param { order: 0 order: 2 order: 3 order: 1 }');
    layer(`${made}_f`, 'Flatten', [permuted], 'flatten_param { axis: 1 }');
  }
  layer(`prior${name}`, 'PriorBox', [features[from], 'data'],
    `prior_box_param { min_size: ${real(min)} ${max ? `max_size: ${real(max)} ` : ''}` +
    ratios.map((r) => `aspect_ratio: ${real(r)} `).join('') +
    `flip: false clip: false variance: 0.1 variance: 0.1 variance: 0.2 variance: 0.2 step: ${step}.0 offset: 0.5 }`);
}
const all = (prefix, suffix) => heads.map(({ name }) => `${prefix}${name}${suffix}`);
layer('mbox_loc', 'Concat', all('loc', '_f'), 'concat_param { axis: 1 }');
layer('mbox_conf', 'Concat', all('conf', '_f'), 'concat_param { axis: 1 }');
layer('mbox_priorbox', 'Concat', all('prior', ''), 'concat_param { axis: 2 }');
layer('mbox_conf_r', 'Reshape', ['mbox_conf'], 'reshape_param { shape { dim: 0 dim: -1 dim: 2 } }');
layer('mbox_conf_s', 'Softmax', ['mbox_conf_r'], 'softmax_param { axis: 2 }');
layer('mbox_conf_flat', 'Flatten', ['mbox_conf_s'], 'flatten_param { axis: 1 }');
layer('detection_out', 'DetectionOutput', ['mbox_loc', 'mbox_conf_flat', 'mbox_priorbox'],
  'detection_output_param { num_classes: 2 share_location: true background_label_id: 0 ' +
  'nms_param { nms_threshold: 0.5 top_k: 400 } code_type: CENTER_SIZE keep_top_k: 200 confidence_threshold: 0.3 }');

// ---- the caffemodel, in protobuf's wire format: Net.layer = 100; Layer name 1, type 2, blobs 7; Blob data 5, shape 7
function varint(value) {
  const out = [];
  for (; value > 127; value = Math.floor(value / 128)) out.push((value % 128) | 128);
  return Buffer.from([...out, value]);
}
const field = (number, bytes) => Buffer.concat([varint(number * 8 + 2), varint(bytes.length), bytes]);
const blob = (shape, data) => field(7, Buffer.concat([
  field(7, field(1, Buffer.concat(shape.map(varint)))),
  field(5, Buffer.from(data.buffer, data.byteOffset, data.byteLength))]));
const model = Buffer.concat([field(1, Buffer.from('ssdface512')), ...blobs.map(({ name, shape, data, biases }) =>
  field(100, Buffer.concat([field(1, Buffer.from(name)), field(2, Buffer.from('Convolution')), blob(shape, data),
    blob([biases.length], biases)])))]);

mkdirSync(outputFolder, { recursive: true });
writeFileSync(join(outputFolder, 'ssdface512.caffemodel'), model);
writeFileSync(join(outputFolder, 'ssdface512.prototxt'), text);
console.log(`${join(outputFolder, 'ssdface512.caffemodel')}: ${blobs.length} convolutions, ${model.length} bytes`);

// ---- comparison with another caffemodel of the same layers
function* fields(bytes) {
  let at = 0;
  const number = () => {
    let value = 0, factor = 1, byte;
    do { byte = bytes[at++]; value += (byte & 127) * factor; factor *= 128; } while (byte & 128);
    return value;
  };
  while (at < bytes.length) {
    const key = number();
    if (key % 8 === 0) { number(); continue; }
    if (key % 8 === 5) { at += 4; continue; }
    const length = number();
    yield [Math.floor(key / 8), bytes.subarray(at, at + length)];
    at += length;
  }
}
function blobsOf(file) {
  const found = new Map();
  for (const [number, bytes] of fields(readFileSync(file))) {
    if (number !== 100) continue;
    const entry = { name: '', blobs: [] };
    for (const [part, value] of fields(bytes)) {
      if (part === 1) entry.name = value.toString();
      if (part !== 7) continue;
      for (const [kind, data] of fields(value)) {
        if (kind === 5) entry.blobs.push(new Float32Array(data.buffer.slice(data.byteOffset, data.byteOffset + data.length)));
      }
    }
    if (entry.blobs.length) found.set(entry.name, entry.blobs);
  }
  return found;
}
if (compareFile) {
  const ours = blobsOf(join(outputFolder, 'ssdface512.caffemodel')), theirs = blobsOf(compareFile);
  let largest = 0, where = '';
  for (const name of new Set([...ours.keys(), ...theirs.keys()])) {
    const a = ours.get(name), b = theirs.get(name);
    const same = a && b && a.length === b.length && a.every((values, i) => values.length === b[i].length);
    if (!same) throw new Error(`${name}: the models do not have the same blobs`);
    a.forEach((values, i) => values.forEach((v, j) => {
      const difference = Math.abs(v - b[i][j]);
      if (!(difference <= largest)) [largest, where] = [difference, `${name}, blob ${i}, value ${j}: ${v} and ${b[i][j]}`];
    }));
  }
  console.log(`largest difference from ${compareFile}: ${largest}${where ? ` (${where})` : ''}`);
  if (!(largest < 1e-6)) process.exit(1);
}
