// Evaluates call texts of the web bridge as a page's web view would, each in a fresh
// context that defines only the named global callback, and writes back what the callback
// received. Usage: node zavlo-callback-roundtrip.js INPUT OUTPUT
//   INPUT:  one JSON record a line, {"name": callback name, "call": call text}
//   OUTPUT: one JSON record a line, in the same order, {"value": the argument parsed as
//           JSON} or {"error": why the text did not hand the callback one JSON string}
'use strict';
const fs = require('fs');
const vm = require('vm');

function evaluate({name, call}) {
  const received = [];
  const context = vm.createContext({});
  // Defined, not assigned, so that a name such as "constructor" is an own global too.
  Object.defineProperty(context, name, {
    value: (...args) => received.push(args),
    writable: true,
    enumerable: true,
    configurable: true,
  });
  try {
    vm.runInContext(call, context);
  } catch (error) {
    return {error: `evaluation failed: ${error}`};
  }
  if (received.length !== 1) return {error: `the callback ran ${received.length} times`};
  const [args] = received;
  if (args.length !== 1 || typeof args[0] !== 'string') {
    return {error: `the callback received ${args.length} arguments, the first of type ${typeof args[0]}`};
  }
  // Anything beside the call (an injected assignment, say) leaves a global behind.
  const others = Object.keys(context).filter((key) => key !== name);
  if (others.length !== 0) return {error: `the text made globals: ${others.join(', ')}`};
  try {
    return {value: JSON.parse(args[0])};
  } catch (error) {
    return {error: `the argument is not JSON: ${error}`};
  }
}

const [input, output] = process.argv.slice(2);
const records = fs.readFileSync(input, 'utf8').split('\n').filter((line) => line !== '');
const answers = records.map((line) => JSON.stringify(evaluate(JSON.parse(line))));
fs.writeFileSync(output, answers.join('\n') + '\n');
