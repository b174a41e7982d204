// Reads the step's input envelope from stdin and answers with a greeting as JSON.
'use strict';

const chunks = [];
process.stdin.on('data', (chunk) => chunks.push(chunk));
process.stdin.on('end', () => {
  const envelope = JSON.parse(Buffer.concat(chunks).toString('utf8'));
  const flowName = envelope.flow_name || 'this workflow';
  const result = {
    message: `Hello from Node ${process.versions.node}, running ${flowName}.`,
    flow_id: envelope.flow_id,
    step_id: envelope.step_id,
    earlier_steps: Object.keys(envelope.previous_outputs || {}).sort(),
  };
  process.stdout.write(JSON.stringify(result) + '\n');
});
