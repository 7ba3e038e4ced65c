// node duckdb.js < BLOCKS > RESULTS: runs SQL with DuckDB, in memory and in the working folder. BLOCKS is a
// JSON array of texts, each one or more statements, run in their order on one connection. RESULTS has for
// each text the columns and rows of its last statement; numbers that a double may not hold are texts.
const { DuckDBInstance } = require("@duckdb/node-api");

async function main() {
  const blocks = JSON.parse(require("fs").readFileSync(0, "utf8"));
  const instance = await DuckDBInstance.create(":memory:");
  const connection = await instance.connect();
  const results = [];
  for (const block of blocks) {
    let result = { columns: [], rows: [] };
    const statements = await connection.extractStatements(block);
    for (let at = 0; at < statements.count; ++at) {
      const prepared = await statements.prepare(at);
      const reader = await prepared.runAndReadAll();
      result = { columns: reader.columnNames(), rows: reader.getRowsJson() };
    }
    results.push(result);
  }
  process.stdout.write(JSON.stringify(results) + "\n");
}

main().catch((error) => {
  process.stderr.write(`${error.message}\n`);
  process.exit(1);
});
