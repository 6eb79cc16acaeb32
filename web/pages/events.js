// What each kind of event says to a person, and where it belongs.

export const groups = {
  panel: 'Panel', claims: 'Claims', traps: 'Traps', datagrams: 'Datagrams', echoes: 'Echoes',
  links: 'Links', frames: 'Frames', pings: 'Pings', faults: 'Faults',
};
export const hiddenAtFirst = new Set(['frames', 'pings']);

// The text that a client's user wrote, without the clauses that its agent put behind it.
export const ownText = (option) => {
  const at = option.search(/;(NETADDR|SWINST|KICKSEQ|SRVQ)=/);
  return (at < 0 ? option : option.slice(0, at)).replace(/;$/, '');
};

const frameNames = {
  1: 'hello', 2: 'get device id', 3: 'get', 4: 'set', 5: 'trap', 6: 'untrap', 7: 'ping', 16: 'trap value',
};
const results = {
  0: 'done', 5: 'not allowed', 24: 'wrong length', 31: 'failed', 87: 'makes no sense', 170: 'busy', 1168: 'no such object',
  1306: 'another version', 1629: 'wrong type', 1816: 'panel full',
};

const habitNames = {
  'drop': 'Datagrams get lost', 'repeat': 'Datagrams come twice', 'reorder': 'Datagrams are overtaken',
  'lose-echo': 'Echoes get lost', 'refuse-claim': 'Claims are refused', 'garble': 'Answers make no sense',
  'late': 'Answers come late', 'mute': 'No answers at all',
};
const habitValue = ({ habit, value }) => (!value ? ': no more' : habit === 'mute' ? '' : habit === 'late' ? `: ${value} ms` : `: the next ${value}`);

// kind: [group, badge, tone, text, extras]
const kinds = {
  'listening': (e) => ['links', 'ready', 'info', `Listening on ${e.address}`],
  'link-up': (e) => ['links', 'connected', 'good', `${e.use === 'local' ? 'Local link' : 'Link over a network,'} ${e.address}`, { changes: true, said: `Client ${e.link} is connected` }],
  'link-down': (e) => ['links', 'gone', 'bad', `Link ended: ${e.reason}`, { changes: true, said: `Client ${e.link} is gone` }],
  'link-refused': (e) => ['links', 'refused', 'bad', `Not let in: ${e.reason}`],
  'entry-added': (e) => ['panel', 'entry', 'info', `“${ownText(e.text)}” is on the display`, { note: e.text, changes: true, said: `New entry ${ownText(e.text)}` }],
  'entry-deleted': (e) => ['panel', 'entry off', 'quiet', `“${ownText(e.text)}” was taken off`, { note: e.text, changes: true }],
  'entry-gone': (e) => ['panel', 'entry off', 'quiet', `“${ownText(e.text)}” went with its link`, { note: e.text, changes: true }],
  'trap-on': (e) => ['traps', 'on', 'info', `Wants to hear of ${e.object}`, { changes: true }],
  'trap-off': (e) => ['traps', 'off', 'quiet', `No longer wants to hear of ${e.object}`, { changes: true }],
  'trap-sent': (e) => ['traps', 'sent', 'good', `Trap of ${e.object}`],
  'set-refused': (e) => ['frames', 'refused', 'bad', `${e.object}: ${results[e.result] || `result ${e.result}`}`],
  'press-claimed': (e) => ['claims', 'claimed', 'good', 'Press claimed', { changes: true, said: `Press claimed by client ${e.link}` }],
  'claim-refused': (e) => ['claims', 'refused', 'bad', 'Claim refused', { changes: true, said: `Claim of client ${e.link} refused` }],
  'token-freed': () => ['claims', 'freed', 'quiet', 'Token freed', { changes: true }],
  'picked': (e) => ['panel', 'picked', 'info', `“${ownText(e.text)}” picked`, { note: e.text, said: `Picked ${ownText(e.text)}` }],
  'feeder': (e) => ['panel', 'feeder', 'info', e.state === 'on' ? 'Paper in the feeder' : 'Feeder empty', { changes: true }],
  'button': () => ['panel', 'pressed', 'info', 'Scan button pressed', { changes: true, said: 'Scan button pressed' }],
  'fax': () => ['panel', 'fax', 'info', 'A fax waits', { changes: true, said: 'A fax waits' }],
  'not-sent': (e) => ['datagrams', 'not sent', 'bad', `Not sent, ${e.reason}`, { note: e.text, said: `Not sent, ${e.reason}` }],
  'kick-sent': (e) => ['datagrams', e.try > 1 ? 'sent again' : 'sent', e.try > 1 ? 'warn' : 'good', `Datagram ${e.sequence} to ${e.address}${e.try > 1 ? `, try ${e.try}` : ''}`, { note: `KICKSEQ=${e.sequence};` }],
  'kick-echoed': (e) => ['echoes', 'echoed', 'good', `Echo of datagram ${e.sequence}`, { note: `KICKSEQ=${e.sequence};`, said: `Datagram ${e.sequence} echoed`, changes: true }],
  'kick-given-up': (e) => ['datagrams', 'given up', 'bad', `Datagram ${e.sequence}: ${e.address} does not answer`, { said: `Datagram ${e.sequence} given up`, changes: true }],
  'kick-dropped': (e) => ['datagrams', 'lost', 'bad', `Datagram ${e.sequence} lost on the way`, { changes: true }],
  'kick-repeated': (e) => ['datagrams', 'repeated', 'warn', `Datagram ${e.sequence} sent twice`, { changes: true }],
  'kick-held-back': (e) => ['datagrams', 'held back', 'warn', `Datagram ${e.sequence} waits to be overtaken`, { changes: true }],
  'kick-echo-lost': (e) => ['echoes', 'lost', 'bad', `Echo of datagram ${e.sequence} not heard`, { changes: true }],
  'job-taken': (e) => ['datagrams', 'job', 'info', `Discovery job ${e.number} from ${e.address}`],
  'job-refused': (e) => ['faults', 'job', 'bad', `Discovery job refused: ${e.reason}`],
  'job-not-answered': (e) => ['faults', 'job', 'bad', `Discovery job not answered: ${e.address} has not registered for ${e.object}`],
  'print-path': (e) => ['faults', 'print', 'quiet', e.text],
  'cut': (e) => ['faults', 'cut', 'bad', `Links cut for ${e.ms} ms`, { changes: true, said: 'Links cut' }],
  'garbage': () => ['faults', 'garbage', 'warn', 'Garbage sent to every client'],
  'habit': (e) => ['faults', e.value ? 'habit' : 'habit off', e.value ? 'warn' : 'quiet', `${habitNames[e.habit] || e.habit}${habitValue(e)}`, { changes: true }],
  'panel': (e) => ['panel', 'panel', 'quiet', e.text, { changes: true }],
  'frame-in': (e) => frame(e, 'from the client'),
  'frame-out': (e) => frame(e, 'to the client'),
};

function frame(e, way) {
  const name = frameNames[e.frame & 0x7f] || `kind ${e.frame}`;
  const answer = e.frame & 0x80;
  const group = (e.frame & 0x7f) === 7 ? 'pings' : 'frames';
  const result = answer && e.result !== undefined ? `: ${results[e.result] || `result ${e.result}`}` : '';
  const fate = e.fate ? `, ${e.fate}` : '';
  const tone = e.fate || e.result ? 'bad' : 'quiet';
  const what = answer ? `Answer to ${name}` : name[0].toUpperCase() + name.slice(1);
  return [group, e.kind === 'frame-in' ? '→ in' : '← out', tone, `${what}${e.object ? ` ${e.object}` : ''}${result}${fate}`,
    { note: `${way}, number ${e.number}` }];
}

export function describe(event) {
  const build = kinds[event.kind];
  const [group, badge, tone, text, extras] = build ? build(event) : ['faults', event.kind, 'quiet', ''];
  const view = { group, badge, tone, text, ...extras };
  view.search = [badge, text, view.note, event.kind, event.address, event.object, event.text, event.link && `client ${event.link}`]
    .join(' ').toLowerCase();
  return view;
}
