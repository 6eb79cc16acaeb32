// The way of one pick or press as a diagram: who told whom, when, and what became of it.

const kWidth = 720;
const kHead = 64;
const kRow = 46;
const kSvg = 'http://www.w3.org/2000/svg';

const draw = (name, attributes = {}, ...children) => {
  const element = document.createElementNS(kSvg, name);
  for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
  element.append(...children);
  return element;
};

// From which of the three to which, and how: [from, to, words, tone, lost].
const arrows = {
  'picked': () => ['user', 'device', 'picks', 'quiet'],
  'button': () => ['user', 'device', 'presses Scan', 'quiet'],
  'trap-sent': (e) => ['device', e.link, `trap ${e.object}`, 'quiet'],
  'kick-sent': (e) => ['device', 'target', e.try > 1 ? `datagram again, try ${e.try}` : `datagram ${e.sequence}`, e.try > 1 ? 'warn' : 'quiet'],
  'kick-dropped': () => ['device', 'target', 'lost on the way', 'bad', true],
  'kick-repeated': () => ['device', 'target', 'the same once more', 'warn'],
  'kick-held-back': () => ['device', 'device', 'waits to be overtaken', 'warn'],
  'kick-echoed': () => ['target', 'device', 'echo', 'good'],
  'kick-echo-lost': () => ['target', 'device', 'echo, not heard', 'bad', true],
  'kick-given-up': () => ['device', 'device', 'given up, no echo', 'bad'],
  'not-sent': (e) => ['device', 'device', `not sent, ${e.reason}`, 'bad'],
  'press-claimed': (e) => [e.link, 'device', 'claims the press', 'good'],
  'claim-refused': (e) => [e.link, 'device', 'claim, refused', 'bad'],
  'token-freed': (e) => [e.link, 'device', 'frees the token', 'quiet'],
};

// A datagram that was lost is one step, not two: the device reports the sending and then the loss.
function stepsOf(events) {
  const steps = [];
  for (const event of events) {
    const arrow = arrows[event.kind];
    if (!arrow) continue;
    const [from, to, words, tone, lost] = arrow(event);
    const before = steps[steps.length - 1];
    if (event.kind === 'kick-dropped' && before && before.kind === 'kick-sent') {
      Object.assign(before, { tone: 'bad', lost: true, words: `${before.words}, lost` });
      continue;
    }
    steps.push({ kind: event.kind, from, to, words, tone, lost, t: event.t });
  }
  return steps;
}

function actorsOf(steps, events) {
  const actors = [{ key: 'user', name: 'User' }, { key: 'device', name: 'Device' }];
  const target = events.find((event) => event.address);
  const owner = events.find((event) => event.kind === 'picked');
  if (steps.some(({ from, to }) => from === 'target' || to === 'target')) {
    actors.push({ key: 'target', name: owner && owner.link ? `Client ${owner.link}` : 'Client', note: target ? target.address : '' });
  }
  const links = new Set(steps.flatMap(({ from, to }) => [from, to]).filter((key) => typeof key === 'number'));
  for (const key of [...links].sort((a, b) => a - b)) actors.push({ key, name: `Client ${key}` });
  const step = kWidth / actors.length;
  actors.forEach((actor, index) => { actor.x = step * (index + 0.5); });
  return actors;
}

const since = (t, start) => (t - start < 1000 ? `+${(t - start).toFixed(t - start < 10 ? 1 : 0)} ms` : `+${((t - start) / 1000).toFixed(2)} s`);

function arrowLine(step, from, to, y) {
  if (from === to) {
    return [draw('circle', { class: 'tip', cx: from, cy: y, r: 5 }), draw('text', { x: from + 12, y: y + 4 }, step.words)];
  }
  const sign = Math.sign(to - from);
  const end = step.lost ? from + (to - from) * 0.62 : to - sign * 3;
  const parts = [
    draw('path', { class: 'arrow', d: `M${from} ${y}H${end - (step.lost ? 0 : sign * 6)}` }),
    draw('text', { x: (from + to) / 2, y: y - 7, 'text-anchor': 'middle' }, step.words),
  ];
  parts.push(step.lost
    ? draw('path', { class: 'lost', d: `M${end - 6} ${y - 6}l12 12M${end + 6} ${y - 6}l-12 12` })
    : draw('path', { class: 'tip', d: `M${end} ${y}l${-sign * 10} -5v10z` }));
  return parts;
}

export function drawWay(place, events) {
  place.replaceChildren();
  const steps = stepsOf(events);
  if (!steps.length) return;
  const actors = actorsOf(steps, events);
  const xOf = (key) => (actors.find((actor) => actor.key === key) || actors[1]).x;
  const height = kHead + steps.length * kRow + 16;
  const svg = draw('svg', { viewBox: `0 0 ${kWidth} ${height}`, role: 'img', 'aria-labelledby': 'way-title way-text' });
  svg.append(draw('title', { id: 'way-title' }, 'Who told whom, and when'));
  for (const actor of actors) {
    svg.append(draw('path', { class: 'life', d: `M${actor.x} 48V${height - 6}` }),
      draw('rect', { class: 'actor', x: actor.x - 66, y: 4, width: 132, height: 42, rx: 9 }),
      draw('text', { x: actor.x, y: actor.note ? 21 : 30, 'text-anchor': 'middle', 'font-weight': 600 }, actor.name));
    if (actor.note) svg.append(draw('text', { class: 'time', x: actor.x, y: 38, 'text-anchor': 'middle' }, actor.note));
  }
  steps.forEach((step, index) => {
    const y = kHead + index * kRow + 26;
    svg.append(draw('g', { class: step.tone }, ...arrowLine(step, xOf(step.from), xOf(step.to), y)),
      draw('text', { class: 'time', x: 4, y: y + 4 }, since(step.t, steps[0].t)));
  });
  // The same for those who do not see it.
  const name = (key) => (actors.find((actor) => actor.key === key) || actors[1]).name;
  const list = Object.assign(document.createElement('ol'), { className: 'sr', id: 'way-text' });
  for (const step of steps) {
    const item = document.createElement('li');
    item.textContent = `${since(step.t, steps[0].t)}: ${name(step.from)}${step.from === step.to ? '' : ` to ${name(step.to)}`}, ${step.words}`;
    list.append(item);
  }
  place.append(svg, list);
}
