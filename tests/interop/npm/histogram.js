// histogram.js FOLDER: what the library reads in latency.hlog, by tag, as JSON: the percentiles of all
// intervals together, and the percentile file that the library would write.
const fs = require("fs");
const path = require("path");
const hdr = require("hdr-histogram-js");

const log = fs.readFileSync(path.join(process.argv[2], "latency.hlog"), "utf8");
const result = {};
for (const tag of hdr.listTags(log)) {
  const reader = new hdr.HistogramLogReader(log);
  const sum = hdr.build({
    lowestDiscernibleValue: 1, highestTrackableValue: 3600000000000, numberOfSignificantValueDigits: 3,
  });
  let intervals = 0;
  for (let next = reader.nextIntervalHistogram(); next !== null; next = reader.nextIntervalHistogram()) {
    if (next.tag === tag) {
      sum.add(next);
      intervals += 1;
    }
  }
  result[tag] = {
    count: sum.totalCount, intervals, text: sum.outputPercentileDistribution(5, 1000),
    percentiles: [50, 90, 99, 99.9, 100].map((level) => sum.getValueAtPercentile(level)),
  };
}
console.log(JSON.stringify(result));
