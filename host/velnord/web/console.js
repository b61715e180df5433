// The console's page: it draws what velnord reports on its event feed and sends each action
// as a POST that carries the session's CSRF token. No inline script, no outside source.
'use strict';

const csrf = document.querySelector('meta[name="csrf"]').content;
const byId = (id) => document.getElementById(id);
const SVG = 'http://www.w3.org/2000/svg';
const MAX_LOG_LINES = 200;
// Settings that the page has changed or added and not saved yet: name -> value.
const pending = new Map();
let settings = {};

function cell(row, text, className) {
  const td = row.insertCell();
  td.textContent = text;
  if (className) td.className = className;
  return td;
}

function yesNo(value) {
  return value === true ? 'yes' : value === false ? 'no' : '—';
}

function timeOf(seconds) {
  return seconds ? new Date(seconds * 1000).toLocaleTimeString() : '—';
}

// The server's version number as the server itself writes it: 150018 is 15.18 and, before 10,
// 90624 is 9.6.24.
function versionText(number) {
  if (number >= 100000) return Math.floor(number / 10000) + '.' + (number % 10000);
  return Math.floor(number / 10000) + '.' + (Math.floor(number / 100) % 100) + '.' + (number % 100);
}

function showResult(element, ok, text) {
  element.className = 'result ' + (ok ? 'ok' : 'failed');
  element.textContent = text;
}

async function post(path, fields) {
  const response = await fetch(path, {
    method: 'POST',
    headers: { 'X-CSRF-Token': csrf, 'Content-Type': 'application/x-www-form-urlencoded' },
    body: new URLSearchParams(fields),
  });
  const text = await response.text();
  try {
    return JSON.parse(text);
  } catch (error) {
    return { ok: false, words: text.trim() || response.statusText };
  }
}

function outcomeText(answer) {
  return answer.code ? answer.words + ' (' + answer.code + ')' : answer.words;
}

function drawState(state, folders, lastTick) {
  const name = state && state.state ? state.state : 'UNKNOWN';
  const badge = byId('state');
  badge.textContent = name;
  badge.className = 'badge ' + name;
  state = state || {};
  byId('answering').textContent = yesNo(state.postgresIsResponding);
  byId('version').textContent = state.PGserverVersion ? versionText(state.PGserverVersion) : '—';
  byId('data-folder').textContent = (state.dataDir || '—') + ': exists ' + yesNo(state.dataDirExists) +
    ', is a folder ' + yesNo(state.dataDirIsDirectory) + ', initialised ' + yesNo(state.dataDirHasBeenInitialized);
  folders = folders || {};
  byId('socket-folder').textContent = (folders.socket || '—') + (folders.socketPresent ? ' (present)' : ' (missing)');
  byId('log-folder').textContent = (folders.log || '—') + (folders.logPresent ? ' (present)' : ' (missing)');
  byId('last-tick').textContent = timeOf(lastTick);
}

let drawnClients = '';
function drawClients(clients) {
  const drawing = JSON.stringify(clients || []);
  if (drawing === drawnClients) return;
  drawnClients = drawing;
  const body = byId('clients');
  body.replaceChildren();
  for (const client of clients || []) {
    const row = body.insertRow();
    row.dataset.pid = client.pid;
    cell(row, String(client.pid));
    cell(row, client.database);
    cell(row, client.user);
    cell(row, client.state);
    cell(row, timeOf(client.since));
    if (client.stopEnds) cell(row, 'a stop ends it', 'ends');
    else cell(row, 'keeps the server running', 'keeps');
  }
}

function settingRow(body, name, value, editable) {
  const row = body.insertRow();
  row.dataset.name = name;
  cell(row, name);
  const input = document.createElement('input');
  input.value = value;
  input.disabled = !editable;
  input.addEventListener('input', () => {
    pending.set(name, input.value);
    row.classList.add('changed');
  });
  row.insertCell().append(input);
  cell(row, '', 'says');
  if (pending.has(name)) {
    input.value = pending.get(name);
    row.classList.add('changed');
  }
}

// Redrawn only when the settings, or the names of those changed on the page, differ: a value
// being typed keeps its place and focus while the state refreshes around it.
let drawnSettings = '';
function drawSettings(configuration) {
  const drawing = JSON.stringify([configuration || {}, [...pending.keys()]]);
  if (drawing === drawnSettings) return;
  drawnSettings = drawing;
  settings = configuration || {};
  const body = byId('settings');
  body.replaceChildren();
  for (const [name, value] of Object.entries(settings)) {
    settingRow(body, name, String(value), name !== 'dataDir');
  }
  for (const [name, value] of pending) {
    if (!(name in settings)) settingRow(body, name, value, true);
  }
}

function drawLog(path, lines) {
  byId('log-path').textContent = path || '—';
  const tail = byId('log-tail');
  tail.textContent = '';
  appendLog(lines || []);
}

function appendLog(lines) {
  const tail = byId('log-tail');
  const kept = (tail.textContent ? tail.textContent.split('\n').filter((line) => line !== '') : []).concat(lines);
  tail.textContent = kept.slice(-MAX_LOG_LINES).join('\n') + (kept.length ? '\n' : '');
  tail.scrollTop = tail.scrollHeight;
}

function svgElement(name, attributes) {
  const element = document.createElementNS(SVG, name);
  for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, String(value));
  return element;
}

// Connections as a line over bands where the server ran, for the hour up to now.
function drawChart(samples) {
  const chart = byId('chart');
  chart.replaceChildren();
  const width = 600, height = 140, top = 10, bottom = 20;
  const now = Date.now() / 1000, start = now - 3600;
  const x = (time) => ((time - start) / 3600) * width;
  const most = Math.max(1, ...samples.map((sample) => sample.connections));
  const y = (count) => top + (1 - count / most) * (height - top - bottom);
  samples.forEach((sample, index) => {
    const next = index + 1 < samples.length ? samples[index + 1].time : now;
    if (sample.running) {
      chart.append(svgElement('rect', { x: x(sample.time), y: top, width: Math.max(1, x(next) - x(sample.time)),
        height: height - top - bottom, fill: '#c8e6c9' }));
    }
  });
  if (samples.length) {
    const points = samples.map((sample) => x(sample.time).toFixed(1) + ',' + y(sample.connections).toFixed(1));
    chart.append(svgElement('polyline', { points: points.join(' '), fill: 'none', stroke: '#1a4f8a', 'stroke-width': 2 }));
  }
  const label = (text, atX, atY, anchor) => {
    const element = svgElement('text', { x: atX, y: atY, 'font-size': 10, fill: '#5a6470', 'text-anchor': anchor });
    element.textContent = text;
    chart.append(element);
  };
  label('-60 min', 2, height - 5, 'start');
  label('now', width - 2, height - 5, 'end');
  label(most + ' connections', 2, top + 8, 'start');
}

// The restart ledger: when the service last started, and today's starts by what caused them.
function drawLedger(ledger) {
  ledger = ledger || {};
  byId('last-start').textContent = ledger.lastStart ? new Date(ledger.lastStart).toLocaleString() : '—';
  const today = Object.entries(ledger.startsToday || {}).filter(([, count]) => count > 0);
  byId('starts-today').textContent =
    today.length ? today.map(([cause, count]) => count + ' ' + cause).join(', ') : 'none';
}

function drawPicture(picture) {
  drawState(picture.state, picture.folders, picture.lastTick);
  drawLedger(picture.ledger);
  drawClients(picture.clients);
  drawSettings(picture.settings);
  drawLog(picture.logPath, picture.log);
  drawChart(picture.samples || []);
}

function setBusy(busy) {
  for (const button of document.querySelectorAll('button')) button.disabled = busy;
}

async function runAction(action) {
  setBusy(true);
  showResult(byId('result'), true, action + '…');
  try {
    const answer = await post('/api/service', { action });
    showResult(byId('result'), answer.ok, action + ': ' + outcomeText(answer));
  } finally {
    setBusy(false);
  }
}

function settingsForm(mode) {
  const form = new URLSearchParams({ mode });
  for (const [name, value] of pending) {
    form.append('name', name);
    form.append('value', value);
  }
  return form;
}

function showVerdicts(verdicts) {
  for (const verdict of verdicts || []) {
    const row = byId('settings').querySelector('tr[data-name="' + CSS.escape(verdict.name) + '"]');
    if (!row) continue;
    const says = row.querySelector('.says');
    says.textContent = verdict.accepted ? 'accepted' : verdict.serverSays;
    says.className = 'says ' + (verdict.accepted ? 'ok' : 'refused');
  }
}

async function sendSettings(mode) {
  const output = byId('settings-result');
  if (pending.size === 0) {
    showResult(output, false, 'nothing changed');
    return;
  }
  setBusy(true);
  try {
    const answer = await post('/api/settings', settingsForm(mode));
    showVerdicts(answer.verdicts);
    const refused = (answer.verdicts || []).filter((verdict) => !verdict.accepted);
    const reasons = refused.map((verdict) => verdict.name + ': ' + verdict.serverSays).join('; ');
    showResult(output, answer.ok, outcomeText(answer) + (reasons ? ' — ' + reasons : ''));
    if (answer.ok && mode === 'save') {
      pending.clear();
      for (const row of byId('settings').querySelectorAll('tr.changed')) row.classList.remove('changed');
    }
  } finally {
    setBusy(false);
  }
}

function addSetting() {
  const name = byId('new-name').value.trim();
  if (!name) return;
  pending.set(name, byId('new-value').value);
  byId('new-name').value = '';
  byId('new-value').value = '';
  drawSettings(settings);
}

async function runSetup(fields) {
  setBusy(true);
  try {
    const answer = await post('/api/setup', fields);
    showResult(byId('setup-result'), answer.ok, outcomeText(answer));
  } finally {
    setBusy(false);
  }
}

// Back to the login page once the session has ended (logged out, or left unused too long).
async function loginIfSessionEnded() {
  const answer = await fetch('/api/snapshot');
  if (answer.status === 401) window.location.assign('/login');
}

async function logOut() {
  await post('/api/logout', {});
  window.location.assign('/login');
}

function listen() {
  const feed = new EventSource('/api/events');
  const status = byId('feed');
  feed.onopen = () => { status.textContent = 'live'; };
  feed.onerror = () => {
    status.textContent = 'reconnecting';
    loginIfSessionEnded();
  };
  feed.addEventListener('state', (event) => drawPicture(JSON.parse(event.data)));
  feed.addEventListener('tail', (event) => appendLog(JSON.parse(event.data).lines));
  feed.addEventListener('call', () => byId('messages').replaceChildren());
  feed.addEventListener('message', (event) => {
    const item = document.createElement('li');
    item.textContent = JSON.parse(event.data).message;
    byId('messages').append(item);
  });
}

for (const button of document.querySelectorAll('button[data-action]')) {
  button.addEventListener('click', () => runAction(button.dataset.action));
}
byId('add-setting').addEventListener('click', addSetting);
byId('check-settings').addEventListener('click', () => sendSettings('check'));
byId('save-settings').addEventListener('click', () => sendSettings('save'));
byId('setup-new').addEventListener('click', () => runSetup({ dataLocation: byId('data-location').value.trim() }));
byId('setup-upgrade').addEventListener('click', () => runSetup({ upgrade: 'true' }));
byId('log-out').addEventListener('click', logOut);
listen();
