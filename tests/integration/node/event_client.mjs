// A client of Node.js that keeps its connections: node event_client.mjs PORT. Prints what has been
// served, and ends with 1 at the first deviation.

import assert from 'node:assert/strict';
import http from 'node:http';

const port = Number(process.argv[2]);
const sockets = new Set();

function countSocket(socket) {
  sockets.add(socket);
}

// `pieces`: of a body without a declared length.
function exchange(agent, method, path, { body, pieces } = {}) {
  return new Promise((resolve, reject) => {
    const request = http.request({ agent, host: '127.0.0.1', port, method, path });
    request.on('error', reject);
    request.on('socket', countSocket);
    request.on('response', (response) => {
      const received = [];
      response.on('error', reject);
      response.on('data', (piece) => received.push(piece));
      response.on('end', () => resolve({ status: response.statusCode, body: Buffer.concat(received) }));
    });
    if (pieces) sendPieces(request, pieces, 0);
    else request.end(body);
  });
}

// As fast as the server reads.
function sendPieces(request, pieces, next) {
  for (let i = next; i < pieces.length; ++i) {
    if (!request.write(pieces[i])) {
      request.once('drain', () => sendPieces(request, pieces, i + 1));
      return;
    }
  }
  request.end();
}

const kept = new http.Agent({ keepAlive: true, maxSockets: 1 });

for (let i = 0; i < 100; ++i) {
  const response = await exchange(kept, 'GET', `/get?${i}`);
  assert.equal(response.status, 200);
}

for (let i = 0; i < 100; ++i) {
  const body = Buffer.from(`body ${i}`);
  const response = await exchange(kept, 'POST', '/post', { body });
  assert.equal(response.status, 200);
  assert.deepEqual(response.body, body);
}

const piece = Buffer.alloc(10000, 'abcdefghij');
for (let i = 0; i < 5; ++i) {
  const response = await exchange(kept, 'POST', '/upload', { pieces: Array(100).fill(piece) });
  assert.equal(response.status, 200);
  assert.equal(response.body.length, 1000000);
  assert.ok(response.body.equals(Buffer.alloc(1000000, piece)));
}

for (let i = 0; i < 5; ++i) {
  const response = await exchange(kept, 'GET', '/stream');
  assert.equal(response.status, 200);
  assert.equal(response.body.length, 3000000);
}
assert.equal(sockets.size, 1);

const parallel = new http.Agent({ keepAlive: true, maxSockets: 8 });
const responses = await Promise.all(
  Array.from({ length: 200 }, (_, i) => exchange(parallel, 'POST', '/', { body: `${i}` })));
responses.forEach((response, i) => assert.equal(response.body.toString(), `${i}`));

kept.destroy();
parallel.destroy();
console.log(`get 100, post 100, upload 5 of 1000000, download 5 of 3000000, parallel ${responses.length}, ` +
            `connections ${sockets.size}`);
