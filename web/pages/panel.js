// The front panel of one device, its timeline, and the way of one pick or press.
import { describe, groups, hiddenAtFirst } from '/events.js';
import { drawWay } from '/way.js';

const $ = (id) => document.getElementById(id);
const device = Number(new URLSearchParams(location.search).get('device') || 1);
const api = `/api/devices/${device}`;
const kKeep = 5000; // events in memory
const kShow = 400;  // of them in the list

const make = (name, options = {}, ...children) => {
  const { dataset, ...rest } = options;
  const element = Object.assign(document.createElement(name), rest);
  Object.assign(element.dataset, dataset);
  element.append(...children);
  return element;
};

// ---- Talking to the device

async function ask(path, options) {
  const reply = await fetch(path, options);
  const body = await reply.json();
  if (!reply.ok) throw new Error(body.error || `the server answers ${reply.status}`);
  return body;
}

const post = (path, body) =>
  ask(path, { method: 'POST', headers: { 'Content-Type': 'application/json' }, body: JSON.stringify(body) });

let noticeTimer = 0;
function notice(text, error = false) {
  clearTimeout(noticeTimer);
  const banner = $('banner');
  banner.hidden = !text;
  banner.textContent = text;
  banner.classList.toggle('error', error);
}

async function act(promise) {
  try {
    const answer = await promise;
    if (answer.lines && answer.lines.length) {
      notice(answer.lines.join(' '));
      noticeTimer = setTimeout(() => notice(''), 6000);
    } else if ($('banner').classList.contains('error')) {
      notice('');
    }
  } catch (error) {
    notice(error instanceof TypeError ? 'mfpsim does not answer.' : `Not done: ${error.message}`, true);
  }
  refresh();
}

const command = (text) => act(post(`${api}/commands`, { command: text }));

let announced = '';
function announce(text) {
  if (text === announced) text += '\u00a0'; // said again, though it is the same
  announced = text;
  $('announcer').textContent = text;
}

// ---- The panel

let state = null;
let cutUntil = 0;

async function load() {
  const fresh = await ask(api);
  state = fresh;
  cutUntil = performance.now() + fresh.cutMs;
  show();
}

// What changes the device comes as an event; many in a row ask once.
let refreshing = null;
let again = false;
function refresh() {
  if (refreshing) {
    again = true;
    return;
  }
  let pause = 60;
  refreshing = load().catch(() => {
    again = true; // or an old state would stand until the next change
    pause = 1000;
  }).finally(() => {
    setTimeout(() => {
      refreshing = null;
      if (again) {
        again = false;
        refresh();
      }
    }, pause);
  });
}

const clientName = (link) => `client ${link}`;

function entryButton(entry) {
  const button = make('button', { type: 'button', className: 'entry', dataset: { id: entry.id } },
    make('span', { className: 'number', textContent: entry.number, ariaHidden: 'true' }),
    make('span', { className: 'text', textContent: entry.text }),
    make('span', { className: 'from', textContent: `${clientName(entry.link)}${entry.target ? ` at ${entry.target}` : ', local'}` }));
  button.title = entry.option;
  button.addEventListener('click', () => {
    button.classList.add('picked');
    setTimeout(() => button.classList.remove('picked'), 600);
    act(post(`${api}/pick`, { entry: entry.id }));
  });
  return button;
}

// Only what differs is touched: focus and a screen reader's place stay where they are.
function keep(list, items, key, build) {
  const wanted = items.map((item) => [key(item), item]);
  const there = new Map([...list.children].map((child) => [child.dataset.key, child]));
  const names = new Set(wanted.map(([name]) => name));
  for (const [name, child] of there) if (!names.has(name)) child.remove();
  wanted.forEach(([name, item], index) => {
    let child = there.get(name);
    if (!child) {
      child = make('li', { dataset: { key: name } }, build(item));
    }
    if (list.children[index] !== child) list.insertBefore(child, list.children[index] || null);
  });
}

function showDisplay() {
  const { entries } = state;
  const held = document.activeElement && document.activeElement.classList.contains('entry');
  keep($('entries'), entries, (entry) => `${entry.id}`, entryButton);
  entries.forEach((entry, index) => {
    $('entries').children[index].querySelector('.number').textContent = entry.number;
  });
  if (held && document.activeElement === document.body) $('panel').focus(); // its entry has gone
  $('display-empty').hidden = entries.length > 0;
  $('display-count').textContent = entries.length === 1 ? '1 entry' : `${entries.length} entries`;
  const left = Math.ceil((cutUntil - performance.now()) / 1000);
  const cut = left > 0;
  $('display-status').textContent = cut ? `Links are cut, back in ${left} s`
    : state.feeder ? 'Ready, paper in the feeder' : 'Ready';
  $('display-status').parentElement.dataset.state = cut ? 'bad' : 'good';
}

function showKeys() {
  const { press } = state;
  $('lamp').dataset.state = press.state === 'waiting' ? 'waiting' : press.state === 'claimed' ? 'claimed' : 'off';
  $('claim').textContent = press.state === 'waiting' ? 'waits for a claim'
    : press.state === 'claimed' ? `claimed by ${clientName(press.link)}` : 'not pressed';
  $('feeder').setAttribute('aria-checked', String(state.feeder));
  $('feeder-state').textContent = state.feeder ? 'paper in' : 'no paper';
  $('fax-state').textContent = state.fax ? 'one waits' : 'none waits';
}

function linkBox(link) {
  const box = document.createDocumentFragment();
  box.append(make('b', { textContent: `Client ${link.id}` }),
    ` ${link.kind === 'local' ? `local link ${link.address}` : `over a network, ${link.address}`}`);
  const tags = make('div', { className: 'tags' });
  tags.append(make('span', { className: 'tag', textContent: link.entries === 1 ? '1 entry' : `${link.entries} entries` }));
  for (const object of link.objects) tags.append(make('span', { className: 'tag', textContent: `hears ${object}` }));
  box.append(tags);
  return box;
}

function showLinks() {
  const { links } = state;
  keep($('links'), links, (link) => JSON.stringify(link), linkBox);
  $('links-count').textContent = links.length;
  $('links-empty').hidden = links.length > 0;
  const select = $('link-filter');
  for (const link of links) addLinkFilter(link.id, select);
}

function addLinkFilter(id, select = $('link-filter')) {
  if (id && !select.querySelector(`option[value="${id}"]`)) {
    select.append(make('option', { value: id, textContent: `Client ${id}` }));
  }
}

function show() {
  document.title = `${state.model} – front panel`;
  $('model').textContent = state.model;
  $('place').textContent = `${state.address} · ${state.serial}`;
  showDisplay();
  showKeys();
  showLinks();
  showHabits();
}

$('scan').addEventListener('click', () => command('button'));
$('fax').addEventListener('click', () => command('fax'));
$('feeder').addEventListener('click', () => command(state && state.feeder ? 'adf off' : 'adf on'));
$('garbage').addEventListener('click', () => command('garbage'));
$('cut-form').addEventListener('submit', (event) => {
  event.preventDefault();
  command(`cut ${Math.round(Number($('cut-seconds').value) * 1000)}`);
});
$('entries').addEventListener('keydown', (event) => {
  const step = { ArrowDown: 1, ArrowUp: -1 }[event.key];
  const buttons = [...$('entries').querySelectorAll('button')];
  const next = buttons[buttons.indexOf(document.activeElement) + step];
  if (step && next) {
    event.preventDefault();
    next.focus();
  }
});

// ---- Habits

const habits = [
  { key: 'drop', command: 'drop', name: 'Datagrams get lost', hint: 'The device sends them again.', unit: 'next', count: 3 },
  { key: 'repeat', command: 'repeat', name: 'Datagrams come twice', hint: 'Clients should show one.', unit: 'next', count: 3 },
  { key: 'reorder', command: 'reorder', name: 'Datagrams are overtaken', hint: 'The next one comes first.', unit: 'next', count: 1 },
  { key: 'loseEcho', command: 'lose-echo', name: 'Echoes get lost', hint: 'What was echoed comes again.', unit: 'next', count: 3 },
  { key: 'refuseClaim', command: 'refuse-claim', name: 'Claims are refused', hint: 'Of presses of the scan button.', unit: 'next', count: 1 },
  { key: 'garble', command: 'garble', name: 'Answers make no sense', hint: 'Frames that hold nothing of use.', unit: 'next', count: 1 },
  { key: 'late', command: 'late', name: 'Answers come late', hint: 'Every one of them.', unit: 'ms', count: 1500 },
  { key: 'mute', command: 'mute', name: 'No answers at all', hint: 'Requests are read and not answered.' },
];

function buildHabits() {
  for (const habit of habits) {
    const id = `habit-${habit.key}`;
    const name = make('span', { className: 'name', id, textContent: habit.name });
    const toggle = make('button', { type: 'button', className: 'switch', role: 'switch', id: `${id}-switch` });
    toggle.setAttribute('aria-checked', 'false');
    toggle.setAttribute('aria-labelledby', id);
    toggle.setAttribute('aria-describedby', `${id}-hint`);
    const row = make('div', { className: 'habit' }, name);
    if (habit.unit) {
      habit.input = make('input', { type: 'number', min: 1, max: habit.unit === 'ms' ? 86400000 : 1000000, value: habit.count, inputMode: 'numeric' });
      habit.input.setAttribute('aria-label', `${habit.name}: ${habit.unit === 'ms' ? 'milliseconds' : 'how many'}`);
      row.append(make('span', { className: 'amount' }, habit.unit === 'ms' ? '' : 'next ', habit.input, habit.unit === 'ms' ? ' ms' : ''));
      habit.input.addEventListener('change', () => isOn(habit) && setHabit(habit, true));
    }
    row.append(toggle, make('span', { className: 'hint', id: `${id}-hint`, textContent: habit.hint }));
    toggle.addEventListener('click', () => setHabit(habit, !isOn(habit)));
    habit.toggle = toggle;
    habit.hintText = row.querySelector('.hint');
    $('habits').append(row);
  }
}

const isOn = (habit) => habit.toggle.getAttribute('aria-checked') === 'true';

function setHabit(habit, on) {
  if (!habit.input) return command(`${habit.command} ${on ? 'on' : 'off'}`);
  const count = Math.max(1, Math.round(Number(habit.input.value)) || 1);
  habit.input.value = count;
  return command(`${habit.command} ${on ? count : 0}`);
}

function showHabits() {
  for (const habit of habits) {
    const value = Number(state.habits[habit.key]);
    habit.toggle.setAttribute('aria-checked', String(value > 0));
    const left = habit.unit === 'next' && value > 0 ? ` ${value} to come.` : '';
    const text = habit.hint + left;
    if (habit.hintText.textContent !== text) habit.hintText.textContent = text;
  }
}

// ---- The timeline

let events = [];   // in the order of their coming
let ways = new Map(); // of a pick or press: its events
const seen = { last: '' };
let paused = false;
let chosen = null;
let clearedAt = '';
let dirty = false;

const numberOf = (id) => Number(id.split('-')[1]);
const isNew = (id) => !seen.last || id.split('-')[0] !== seen.last.split('-')[0] || numberOf(id) > numberOf(seen.last);
const wayOf = (event) => (event.pick ? `pick ${event.pick}` : event.press ? `press ${event.press}` : '');

function take(event) {
  if (!isNew(event.id)) return false;
  seen.last = event.id;
  event.view = describe(event);
  events.push(event);
  const way = wayOf(event);
  if (way) {
    if (!ways.has(way)) ways.set(way, []);
    ways.get(way).push(event);
  }
  if (events.length > kKeep) {
    const old = events.shift();
    const oldWay = wayOf(old);
    if (oldWay) ways.delete(oldWay);
  }
  addLinkFilter(event.link);
  dirty = true;
  return true;
}

const chosenGroups = () => new Set([...$('chips').querySelectorAll('input:checked')].map((box) => box.value));

function matches(event, shown, text, link) {
  if (!shown.has(event.view.group)) return false;
  if (link && String(event.link || '') !== link) return false;
  return !text || event.view.search.includes(text);
}

function row(event) {
  const { badge, tone, text, note } = event.view;
  const button = make('button', { type: 'button', className: 'event', dataset: { id: event.id } },
    make('time', { dateTime: event.at, textContent: clock(event.at) }),
    make('span', { className: `badge ${tone}`, textContent: badge }),
    make('span', { className: 'what' }, text, ' ', make('small', { textContent: note || '' })),
    make('span', { className: 'link', textContent: event.link ? `client ${event.link}` : '' }));
  return make('li', { dataset: { key: event.id } }, button);
}

function clock(at) {
  const time = new Date(at);
  const part = (value, digits = 2) => String(value).padStart(digits, '0');
  return `${part(time.getHours())}:${part(time.getMinutes())}:${part(time.getSeconds())}.${part(time.getMilliseconds(), 3)}`;
}

function showEvents() {
  dirty = false;
  const shown = chosenGroups();
  const text = $('search').value.trim().toLowerCase();
  const link = $('link-filter').value;
  const wanted = [];
  let total = 0;
  for (let i = events.length - 1; i >= 0; --i) {
    const event = events[i];
    if (clearedAt && numberOf(event.id) <= numberOf(clearedAt)) break;
    if (event.kind === 'gap' || matches(event, shown, text, link)) {
      ++total;
      if (wanted.length < kShow) wanted.push(event);
    }
  }
  const list = $('events');
  const there = new Map([...list.children].map((child) => [child.dataset.key, child]));
  const names = new Set(wanted.map((event) => event.id));
  for (const [name, child] of there) if (!names.has(name)) child.remove();
  wanted.forEach((event, index) => {
    const child = there.get(event.id) || (event.kind === 'gap'
      ? make('li', { className: 'gap', dataset: { key: event.id }, textContent: 'Earlier events are not kept any more.' })
      : row(event));
    if (list.children[index] !== child) list.insertBefore(child, list.children[index] || null);
  });
  mark();
  $('shown').textContent = total === 0 ? (events.length ? 'Nothing of what has happened matches.' : 'Nothing has happened yet.')
    : total > kShow ? `The latest ${kShow} of ${total} events.` : `${total} ${total === 1 ? 'event' : 'events'}${paused ? ', paused' : ''}.`;
}

function frame() {
  if (dirty && !paused) {
    showEvents();
    if (chosen) inspect(chosen, false);
  }
  if (state) showDisplay();
}
setInterval(frame, 120);

function mark() {
  for (const button of $('events').querySelectorAll('.event')) {
    const current = chosen && button.dataset.id === chosen.id;
    if (current) button.setAttribute('aria-current', 'true');
    else button.removeAttribute('aria-current');
  }
}

function inspect(event, focus = true) {
  chosen = event;
  const steps = ways.get(wayOf(event)) || [];
  $('inspector').hidden = false;
  $('inspector-title').textContent = event.pick ? `The way of pick ${event.pick}`
    : event.press ? `The way of press ${event.press}` : 'One event';
  drawWay($('diagram'), steps);
  const fields = $('fields');
  fields.replaceChildren();
  const add = (name, value) => fields.append(make('dt', { textContent: name }), make('dd', { textContent: value }));
  add('what', `${event.view.badge}: ${event.view.text}`);
  add('time', event.at);
  for (const [name, value] of Object.entries(event)) {
    if (!['id', 'at', 't', 'view', 'device', 'kind', 'bytes'].includes(name)) add(name, String(value));
  }
  if (event.bytes) add('bytes', dump(event.bytes));
  mark();
  if (focus) {
    $('inspector').scrollIntoView({ block: 'nearest' });
    $('inspector').focus({ preventScroll: true });
  }
}

// Hexadecimal digits, sixteen bytes a line, with what can be read of them.
function dump(hex) {
  const lines = [];
  for (let i = 0; i < hex.length; i += 32) {
    const bytes = hex.slice(i, i + 32).match(/../g);
    const text = bytes.map((byte) => {
      const code = parseInt(byte, 16);
      return code >= 32 && code < 127 ? String.fromCharCode(code) : '.';
    }).join('');
    lines.push(`${bytes.join(' ').padEnd(48)} ${text}`);
  }
  return lines.join('\n');
}

function closeInspector() {
  const back = chosen && $('events').querySelector(`[data-id="${CSS.escape(chosen.id)}"]`);
  chosen = null;
  $('inspector').hidden = true;
  mark();
  (back || $('timeline')).focus();
}

function buildChips() {
  for (const [key, name] of Object.entries(groups)) {
    const box = make('input', { type: 'checkbox', value: key, checked: !hiddenAtFirst.has(key) });
    box.addEventListener('change', showEvents);
    $('chips').append(make('label', { className: 'chip' }, box, name));
  }
}

$('events').addEventListener('click', ({ target }) => {
  const button = target.closest('.event');
  const event = button && events.find(({ id }) => id === button.dataset.id);
  if (event) inspect(event);
});
$('inspector-close').addEventListener('click', closeInspector);
$('inspector').addEventListener('keydown', (event) => event.key === 'Escape' && closeInspector());
$('search').addEventListener('input', showEvents);
$('link-filter').addEventListener('change', showEvents);
$('pause').addEventListener('click', () => {
  paused = !paused;
  $('pause').setAttribute('aria-pressed', String(paused));
  $('pause').textContent = paused ? 'Go on' : 'Pause';
  showEvents();
});
$('clear').addEventListener('click', () => {
  clearedAt = seen.last;
  if (chosen) closeInspector();
  showEvents();
});

// ---- Staying up to date

function connection(name, text) {
  const pill = $('connection');
  if (pill.dataset.state === name) return;
  pill.dataset.state = name;
  pill.textContent = text;
}

function gap() {
  events.push({ id: `${seen.last}.gap${events.length}`, kind: 'gap', view: { group: '', search: '' } });
  dirty = true;
}

function onMessage(message) {
  if (message.type === 'up') {
    if ($('connection').dataset.state === 'down') refresh();
    connection('up', 'live');
  } else if (message.type === 'down') {
    connection('down', 'mfpsim does not answer');
  } else if (message.type === 'gap') {
    gap();
  } else if (message.type === 'reset') {
    events = [];
    ways = new Map();
    clearedAt = '';
    if (chosen) closeInspector();
    dirty = true;
    refresh();
  } else if (message.type === 'event' && take(message.event)) {
    const { event } = message;
    if (event.view.said) announce(event.view.said);
    if (event.view.changes) refresh();
  }
}

async function start() {
  buildHabits();
  buildChips();
  try {
    // The state behind the events that are known: what comes in between is an event, and has the state asked again.
    const recent = await ask(`${api}/events?limit=1000`);
    await load();
    for (const event of recent.events) take(event);
    seen.last = seen.last || recent.last;
    showEvents();
    window.watchEvents(device, recent.last, onMessage);
  } catch (error) {
    connection('down', 'mfpsim does not answer');
    notice(error instanceof TypeError ? 'mfpsim does not answer; this page tries again.' : error.message, true);
    setTimeout(() => location.reload(), 3000);
  }
}

start();
