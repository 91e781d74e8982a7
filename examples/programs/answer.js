// For kmd_node: answers every request, and prints a line for each.
const http = require('http');

const server = http.createServer((request, response) => {
  console.log(`${request.method} ${request.url}`);
  response.end('up\n');
});
server.listen(Number(process.env.PORT), '127.0.0.1');
for (const signal of ['SIGTERM', 'SIGINT']) {
  process.on(signal, () => process.exit(0));
}
