// Holds Kubernetes objects against the published schemas: a JSON array of objects on standard input, a line
// "KIND NAME ok" or "KIND NAME: reason" an object on standard output.
import * as core from "kubernetes-models/v1";
import { readFileSync } from "node:fs";

for (const object of JSON.parse(readFileSync(0, "utf8"))) {
    const head = `${object.kind} ${object.metadata?.name}`;
    try {
        new core[object.kind](object).validate();
        console.log(`${head} ok`);
    } catch (fault) {
        console.log(`${head}: ${fault.message}`);
    }
}
