// Answers with the value of the package the workflow's package.json installs.
const { value } = require("quorlin-test-pkg");

process.stdout.write(JSON.stringify({ message: `quorlin-test-pkg says ${value}` }));
