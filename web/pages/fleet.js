// All devices of this mfpsim: a list that the server filters and cuts into pages.
const $ = (id) => document.getElementById(id);
const kEvery = 1000; // ms between two looks, while the page is looked at
let offset = 0;

function cell(text, className = '') {
  const td = document.createElement('td');
  td.textContent = text;
  td.className = className;
  return td;
}

function row(device) {
  const tr = document.createElement('tr');
  const link = document.createElement('a');
  link.href = `/panel?device=${device.number}`;
  link.textContent = device.model;
  const name = document.createElement('td');
  name.append(link);
  tr.append(cell(device.number, 'num'), name, cell(device.address), cell(device.serial), cell(device.links, 'num'),
    cell(device.entries, 'num'), cell(device.states.join(', ') || 'ready'));
  return tr;
}

function banner(text, error) {
  $('banner').hidden = !text;
  $('banner').textContent = text;
  $('banner').classList.toggle('error', error);
}

function connection(up) {
  $('connection').dataset.state = up ? 'up' : 'down';
  const text = up ? 'live' : 'mfpsim does not answer';
  if ($('connection').textContent !== text) $('connection').textContent = text;
}

let shown = '';
let asked = 0;
async function load() {
  const mine = ++asked; // an answer to what was typed before comes too late
  const limit = Number($('limit').value);
  const query = new URLSearchParams({ filter: $('filter').value.trim(), offset, limit });
  const reply = await fetch(`/api/devices?${query}`);
  if (!reply.ok) throw new Error((await reply.json()).error);
  const text = await reply.text();
  connection(true);
  if (mine !== asked || text === shown) return;
  shown = text;
  const list = JSON.parse(text);
  if (offset && offset >= list.matching) {
    offset = 0;
    await load();
    return;
  }
  const focused = document.activeElement && document.activeElement.closest('#rows') ? document.activeElement.getAttribute('href') : null;
  $('rows').replaceChildren(...list.devices.map(row));
  if (focused) {
    const again = $('rows').querySelector(`a[href="${CSS.escape(focused)}"]`);
    if (again) again.focus();
  }
  const last = offset + list.devices.length;
  $('totals').textContent = `${list.total} devices, ${list.links} clients`;
  $('range').textContent = list.matching ? `${offset + 1} to ${last} of ${list.matching}` : 'No device matches.';
  $('previous').disabled = offset === 0;
  $('next').disabled = last >= list.matching;
}

let timer = 0;
async function look() {
  clearTimeout(timer);
  try {
    if (!document.hidden) await load();
  } catch (error) {
    connection(false);
  }
  timer = setTimeout(look, kEvery);
}

function turn(pages) {
  offset = Math.max(0, offset + pages * Number($('limit').value));
  look();
}

$('previous').addEventListener('click', () => turn(-1));
$('next').addEventListener('click', () => turn(1));
$('limit').addEventListener('change', () => { offset = 0; look(); });
$('filter').addEventListener('input', () => { offset = 0; look(); });
$('filter-form').addEventListener('submit', (event) => event.preventDefault());
document.addEventListener('visibilitychange', look);
for (const button of document.querySelectorAll('[data-command]')) {
  button.addEventListener('click', async () => {
    try {
      const reply = await fetch('/api/devices/all/commands', {
        method: 'POST', headers: { 'Content-Type': 'application/json' },
        body: JSON.stringify({ command: button.dataset.command }),
      });
      const answer = await reply.json();
      banner(reply.ok ? `${button.textContent}: ${answer.done} of ${answer.of} devices.` : `Not done: ${answer.error}`, !reply.ok);
    } catch (error) {
      banner('mfpsim does not answer.', true);
    }
    look();
  });
}
look();
