// The overview of a hub: sinks, devices, and events as they come and as the journal has them.
const $ = (id) => document.getElementById(id);
const kEvery = 1000;   // ms between two looks, while the page is looked at
const kMostRows = 500; // events in the list
const tones = { connected: 'good', back: 'good', waiting: 'warn', restarting: 'warn', incomplete: 'warn', lost: 'bad' };
let offset = 0;

function cell(content, className = '') {
  const td = document.createElement('td');
  td.append(content);
  td.className = className;
  return td;
}

function badge(text, tone) {
  const span = document.createElement('span');
  span.className = `badge ${tone}`;
  span.textContent = text;
  return span;
}

function row(...cells) {
  const tr = document.createElement('tr');
  tr.append(...cells);
  return tr;
}

const time = (text) => (text ? new Date(text).toLocaleString() : '');
const age = (seconds) => (seconds < 120 ? `${seconds} s` : seconds < 7200 ? `${Math.round(seconds / 60)} min` : `${Math.round(seconds / 3600)} h`);

async function ask(path, query = {}) {
  const reply = await fetch(`/api/${path}?${new URLSearchParams(query)}`);
  const json = await reply.json();
  if (!reply.ok) throw new Error(json.error);
  return json;
}

function connection(up) {
  const text = up ? 'live' : 'the hub does not answer';
  $('connection').dataset.state = up ? 'up' : 'down';
  if ($('connection').textContent !== text) $('connection').textContent = text;
}

function rows(table, list) {
  document.querySelector(`#${table} tbody`).replaceChildren(...list);
}

function sinkRow(sink) {
  const state = sink.problem ? badge(sink.problem, 'bad') : badge(sink.waiting ? 'at work' : 'up to date', 'good');
  return row(cell(sink.name), cell(sink.kind), cell(sink.waiting, 'num'), cell(sink.waiting ? age(sink.oldestSeconds) : '', 'num'),
    cell(sink.delivered, 'num'), cell(sink.retries, 'num'), cell(sink.givenUp, 'num'), cell(state));
}

function deviceRow(device) {
  const state = document.createElement('span');
  state.append(badge(device.state, tones[device.state] || ''), device.up || !device.reason ? '' : ` ${device.reason}`);
  return row(cell(device.name), cell(state), cell(time(device.since)), cell(device.address), cell(device.events, 'num'),
    cell(time(device.lastEvent)));
}

let shownStatus = '';
async function loadStatus() {
  const status = await ask('status');
  const text = JSON.stringify(status);
  if (text === shownStatus) return;
  shownStatus = text;
  document.title = `${status.site} – notifyhub`;
  $('site').textContent = `${status.site}, ${status.hub}`;
  $('totals').textContent = `${status.devices.up} of ${status.devices.total} devices connected, ${status.journal.last} events`
    + (status.active ? '' : '; standing by');
  $('banner').hidden = !status.journal.problem;
  $('banner').textContent = status.journal.problem ? `The journal takes nothing: ${status.journal.problem}` : '';
  rows('sinks', status.sinks.map(sinkRow));
}

let asked = 0;
let shownDevices = '';
async function loadDevices() {
  const mine = ++asked; // an answer to what was typed before comes too late
  const limit = Number($('limit').value);
  const list = await ask('devices', { filter: $('filter').value.trim(), offset, limit });
  if (mine !== asked) return;
  if (offset && offset >= list.matching) {
    offset = 0;
    await loadDevices();
    return;
  }
  const text = JSON.stringify(list);
  if (text === shownDevices) return;
  shownDevices = text;
  rows('devices', list.devices.map(deviceRow));
  const last = offset + list.devices.length;
  $('range').textContent = list.matching ? `${offset + 1} to ${last} of ${list.matching}` : 'No device matches.';
  $('previous').disabled = offset === 0;
  $('next').disabled = last >= list.matching;
}

// ---- Events

const kindOf = (event) => event.type.replace(/^local\.qoma\./, '');

function whatOf(event) {
  const { data } = event;
  const picked = [data.text, data.model].filter(Boolean).join(', ');
  if (picked) return picked;
  if (data.reason) return data.reason;
  if (data.address) return data.address;
  if (data.count) return `${data.count} events were dropped`;
  return kindOf(event) === 'feeder.changed' ? (data.nValue ? 'paper in the feeder' : 'feeder empty') : '';
}

function eventRow({ place, event }) {
  const kind = kindOf(event);
  const tone = kind.startsWith('link.') ? tones[kind.slice(5)] || '' : 'info';
  const tr = row(cell(time(event.time)), cell(event.subject || ''), cell(badge(kind, tone)), cell(whatOf(event)));
  tr.dataset.place = place;
  return tr;
}

const search = () => ({ device: $('device').value.trim(), type: $('type').value, text: $('text').value.trim() });
const isSearch = () => Object.values(search()).some(Boolean);
let oldest = 0;
let newest = 0;

function took(list) {
  for (const { place } of list.events) {
    oldest = oldest ? Math.min(oldest, place) : place;
    newest = Math.max(newest, place);
  }
  $('older').disabled = !list.more;
}

let searched = 0;
async function loadEvents() {
  const mine = ++searched;
  const list = await ask('events', search());
  if (mine !== searched) return;
  oldest = 0;
  newest = 0;
  took(list);
  rows('events', list.events.map(eventRow));
}

async function loadOlder() {
  const list = await ask('events', { ...search(), before: oldest });
  took(list);
  document.querySelector('#events tbody').append(...list.events.map(eventRow));
}

// What comes is shown at once; while the journal is searched, the search is made again.
let again = 0;
function heard(item) {
  if (item.place <= newest) return;
  if (isSearch()) {
    clearTimeout(again);
    again = setTimeout(() => loadEvents().catch(() => {}), 300);
    return;
  }
  newest = item.place;
  const body = document.querySelector('#events tbody');
  body.prepend(eventRow(item));
  while (body.children.length > kMostRows) body.lastElementChild.remove();
  oldest = Number(body.lastElementChild.dataset.place);
  $('said').textContent = `${item.event.subject || 'hub'}: ${kindOf(item.event)} ${whatOf(item.event)}`;
}

// A stream is one of the few connections that a browser has: only a page that is looked at keeps one.
let source = null;
let last = '';
function listen() {
  if (source) source.close();
  source = null;
  if (document.hidden) return;
  source = new EventSource(`/api/live${last ? `?after=${encodeURIComponent(last)}` : ''}`);
  source.onopen = () => loadEvents().catch(() => {});
  source.onmessage = (message) => {
    last = message.lastEventId;
    heard(JSON.parse(message.data));
  };
  for (const missed of ['gap', 'reset']) source.addEventListener(missed, () => loadEvents().catch(() => {}));
  source.onerror = () => {
    if (source && source.readyState === EventSource.CLOSED) setTimeout(listen, 2000);
  };
}

let timer = 0;
async function look() {
  clearTimeout(timer);
  try {
    if (!document.hidden) {
      await Promise.all([loadStatus(), loadDevices()]);
      connection(true);
    }
  } catch (error) {
    connection(false);
  }
  timer = setTimeout(look, kEvery);
}

function turn(pages) {
  offset = Math.max(0, offset + pages * Number($('limit').value));
  look();
}

let typed = 0;
function searchSoon() {
  clearTimeout(typed);
  typed = setTimeout(() => loadEvents().catch(() => connection(false)), 150);
}

$('previous').addEventListener('click', () => turn(-1));
$('next').addEventListener('click', () => turn(1));
for (const id of ['limit', 'filter']) $(id).addEventListener('input', () => { offset = 0; look(); });
for (const id of ['text', 'device', 'type']) $(id).addEventListener('input', searchSoon);
$('older').addEventListener('click', () => loadOlder().catch(() => connection(false)));
for (const form of document.querySelectorAll('form')) form.addEventListener('submit', (event) => event.preventDefault());
document.addEventListener('visibilitychange', () => { look(); listen(); });
look();
listen();
