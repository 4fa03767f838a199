// ONNX Runtime on BASE.onnx; speaks as driver.h says. Its memory is that of node as well.
'use strict';
const fs = require('fs');
const readline = require('readline');
const ort = require('onnxruntime-node');

function floats(path) {
  const bytes = fs.readFileSync(path);
  return new Float32Array(bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.length));
}

async function main(base, threads, shape, outputs) {
  const start = performance.now();
  const session = await ort.InferenceSession.create(base + '.onnx', {
    executionProviders: ['cpu'], graphOptimizationLevel: 'all', intraOpNumThreads: Number(threads),
    interOpNumThreads: 1, executionMode: 'sequential'});
  const load = performance.now() - start;
  const dims = shape.split('x').map(Number);
  const feeds = {data: new ort.Tensor('float32', floats(base + '.input'), dims)};
  const names = outputs.split(',');
  console.log('ready', load.toFixed(3), require('onnxruntime-node/package.json').version);

  let results;
  for await (const line of readline.createInterface({input: process.stdin})) {
    const [command, argument] = line.split(' ');
    if (command === 'run') {
      const times = [];
      for (let i = Number(argument); i > 0; --i) {
        const cpu = process.cpuUsage(), wall = performance.now();
        results = await session.run(feeds, names);
        const wallTime = performance.now() - wall, cpuTime = process.cpuUsage(cpu);
        times.push(wallTime.toFixed(4) + ':' + ((cpuTime.user + cpuTime.system) / 1000).toFixed(4));
      }
      console.log(times.join(' '));
    } else if (command === 'dump') {
      const parts = names.map((name) => results[name].data);
      fs.writeFileSync(argument, Buffer.concat(parts.map((d) => Buffer.from(d.buffer, d.byteOffset, d.byteLength))));
      console.log('done');
    } else {
      console.log(/VmHWM:\s+(\d+)/.exec(fs.readFileSync('/proc/self/status', 'utf8'))[1]);
      break;
    }
  }
  process.exit(0);
}

main(...process.argv.slice(2));
