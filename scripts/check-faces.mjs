// Fails unless every known face is found. usage: node check-faces.mjs DETECTIONS.json LEFT TOP RIGHT BOTTOM ...
// DETECTIONS.json is what `corvalith detect --json` prints; known faces are four numbers each, parts of the picture's
// width and height. A face counts as found when a detection overlaps it by an intersection over union of 0.5.
import { readFileSync } from 'node:fs';

const [file, ...numbers] = process.argv.slice(2);
const { width, height, detections } = JSON.parse(readFileSync(file, 'utf8'));
const found = detections.map(({ box: [l, t, r, b] }) => [l / width, t / height, r / width, b / height]);

const area = ([l, t, r, b]) => Math.max(0, r - l) * Math.max(0, b - t);
function overlap(a, b) {
  const common = area([Math.max(a[0], b[0]), Math.max(a[1], b[1]), Math.min(a[2], b[2]), Math.min(a[3], b[3])]);
  return common / (area(a) + area(b) - common);
}

let missing = 0;
for (let i = 0; i < numbers.length; i += 4) {
  const known = numbers.slice(i, i + 4).map(Number);
  const best = Math.max(0, ...found.map((box) => overlap(box, known)));
  console.log(`known face at ${known.join(' ')}: overlap ${best.toFixed(2)}`);
  if (!(best >= 0.5)) ++missing;
}
console.log(`${found.length} faces found`);
process.exit(missing === 0 && found.length === numbers.length / 4 ? 0 : 1);
