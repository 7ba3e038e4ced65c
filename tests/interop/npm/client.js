'use strict';

// Logs in to the Snap-Shot service with a client library that knows nothing of it, stays for some server
// heartbeats and logs out:
//
//     node client.js PORT USER SESSION SEQUENCE HEARTBEATS
//
// What happened is printed as one JSON object:
//     {"accepted": {...} or null, "rejected": "A", "S" or null, "messages": [hex, ...], "heartbeats": 3,
//      "ended": true}

const soupbintcp = require('soupbintcp');

const [port, username, requestedSession, requestedSequenceNumber, heartbeatsWanted] = process.argv.slice(2);
const serverHeartbeat = 'H'.charCodeAt(0);

const result = { accepted: null, rejected: null, messages: [], heartbeats: 0, ended: false };

const client = new soupbintcp.Client({ port: Number(port), host: '127.0.0.1' });

function finish(status) {
  process.stdout.write(JSON.stringify(result) + '\n', () => process.exit(status));
}

client.on('connect', () => {
  client.login({ username, password: 'anything', requestedSession, requestedSequenceNumber });
});

client.on('accept', (payload) => {
  result.accepted = payload;
});

client.on('reject', (payload) => {
  result.rejected = payload.rejectReasonCode;
});

client.on('message', (payload) => {
  result.messages.push(payload.toString('hex'));
});

// The library keeps server heartbeats to itself; its connection reports them.
client._connection.on('packet', (packetType) => {
  if (packetType !== serverHeartbeat)
    return;
  result.heartbeats += 1;
  if (result.heartbeats === Number(heartbeatsWanted))
    client.logout();
});

client.on('end', () => {
  result.ended = true;
  finish(0);
});

client.on('error', (error) => {
  result.error = String(error);
  finish(1);
});
