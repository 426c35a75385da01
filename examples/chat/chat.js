'use strict';

// One WebSocket for the life of the page; when it is lost a new one is made and the room joined
// again. Pictures come as a binary message right after the text message that announces them.

const kFirstRetryMs = 1000;
const kMaxRetryMs = 10000;
const kJoinAgainMs = 2000;
const kMaxPictureBytes = 2 * 1024 * 1024;
const kMaxLines = 500;

const byId = (id) => document.getElementById(id);
let socket = null;
let retryMs = kFirstRetryMs;
let place = null; // {room, nickname} once joined
let wanted = null; // the chat room to join after connecting
let joined = false; // on this connection
let announced = null; // the picture whose bytes come next

function showTrouble(text) {
  byId('trouble').textContent = text;
  byId('trouble').hidden = !text;
}

function showStatus(text) {
  byId('status').textContent = text;
  byId('status').classList.toggle('connected', text === 'connected');
  const connected = text === 'connected';
  byId('join').disabled = !connected;
  byId('send').disabled = !connected;
}

function send(message) {
  if (!socket || socket.readyState !== WebSocket.OPEN)
    return false;
  socket.send(message instanceof Blob ? message : JSON.stringify(message));
  return true;
}

function connect() {
  showStatus('connecting');
  socket = new WebSocket(`${location.protocol.replace('http', 'ws')}//${location.host}/live`);
  socket.binaryType = 'blob';
  socket.onopen = () => {
    joined = false;
    retryMs = kFirstRetryMs;
    showStatus('connected');
    showTrouble('');
    if (wanted)
      send({ type: 'join', ...wanted });
  };
  socket.onmessage = (event) => {
    if (event.data instanceof Blob)
      takePicture(event.data);
    else
      takeMessage(JSON.parse(event.data));
  };
  socket.onclose = () => {
    showStatus('connecting');
    announced = null;
    showTrouble('There is no connection. Trying again…');
    setTimeout(connect, retryMs);
    retryMs = Math.min(2 * retryMs, kMaxRetryMs);
  };
}

function takeMessage(message) {
  switch (message.type) {
  case 'joined':
    place = { room: message.room, nickname: message.nickname };
    wanted = place;
    joined = true;
    byId('room-name').textContent = message.room;
    byId('entrance').hidden = true;
    byId('chat').hidden = false;
    byId('lines').replaceChildren();
    showTrouble('');
    byId('text').focus();
    break;
  case 'people':
    byId('people').replaceChildren(...message.people.map((nickname) => {
      const item = document.createElement('li');
      item.textContent = nickname;
      return item;
    }));
    break;
  case 'line':
    addLine(message, message.text);
    break;
  case 'picture':
    if (message.bytesFollow)
      announced = message;
    else
      addLine(message, '(a picture that is not kept any more)');
    break;
  case 'error':
    showTrouble(message.text);
    if (!place)
      wanted = null;
    else if (!joined) // the server may not have detected yet that the old connection is closed
      setTimeout(() => !joined && send({ type: 'join', ...wanted }), kJoinAgainMs);
    break;
  }
}

function addLine(message, text, image) {
  const line = document.createElement('li');
  const time = document.createElement('time');
  const date = new Date(message.time);
  time.dateTime = date.toISOString();
  time.textContent = date.toLocaleTimeString([], { hour: '2-digit', minute: '2-digit' });
  const who = document.createElement('span');
  who.className = 'who';
  who.classList.toggle('mine', message.from === place.nickname);
  who.textContent = message.from;
  const what = document.createElement('span');
  what.className = 'text';
  what.textContent = text;
  line.append(time, who, what);
  if (image)
    line.append(image);
  const lines = byId('lines');
  const atEnd = lines.scrollHeight - lines.scrollTop - lines.clientHeight < 50;
  lines.append(line);
  while (lines.childElementCount > kMaxLines)
    removeLine(lines.firstElementChild);
  if (atEnd)
    lines.scrollTop = lines.scrollHeight;
}

function removeLine(line) {
  const image = line.querySelector('img');
  if (image)
    URL.revokeObjectURL(image.src);
  line.remove();
}

function takePicture(blob) {
  if (!announced)
    return;
  const image = document.createElement('img');
  image.alt = `Picture by ${announced.from}`;
  image.src = URL.createObjectURL(new Blob([blob], { type: announced.mediaType }));
  addLine(announced, '', image);
  announced = null;
}

function sendPicture(file) {
  if (!file)
    return;
  if (file.size > kMaxPictureBytes)
    showTrouble('The picture is larger than 2 MiB.');
  else if (send(file))
    showTrouble('');
}

byId('entrance').addEventListener('submit', (event) => {
  event.preventDefault();
  wanted = { room: byId('room').value, nickname: byId('nickname').value };
  send({ type: 'join', ...wanted });
});

byId('say').addEventListener('submit', (event) => {
  event.preventDefault();
  const text = byId('text').value.trim();
  if (text && send({ type: 'say', text })) {
    byId('text').value = '';
    showTrouble('');
  }
});

byId('picture').addEventListener('change', () => {
  sendPicture(byId('picture').files[0]);
  byId('picture').value = '';
});

addEventListener('dragover', (event) => {
  event.preventDefault();
  byId('lines').classList.add('drop');
});
addEventListener('dragleave', () => byId('lines').classList.remove('drop'));
addEventListener('drop', (event) => {
  event.preventDefault();
  byId('lines').classList.remove('drop');
  if (place)
    sendPicture(event.dataTransfer.files[0]);
});
addEventListener('paste', (event) => {
  if (place)
    sendPicture([...event.clipboardData.files].find((file) => file.type.startsWith('image/')));
});

connect();
