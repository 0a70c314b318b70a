// Asks for the list every second and changes the rows that differ. Text reaches the page only as
// textContent, in elements that keep its writing direction to themselves. A row belongs to a path: a
// service that is registered again returns to its row.
'use strict';

const POLL = 1000;
const PATIENCE = 5000;
const KEEP_LOST = 8000;
const KEEP_FRESH = 2000;

const $ = id => document.getElementById(id);
const rows = new Map();
let isFirst = true;

function duration(milliseconds) {
  const seconds = Math.max(0, Math.floor(milliseconds / 1000));
  if (seconds < 60) return `${seconds} s`;
  const minutes = Math.floor(seconds / 60);
  if (minutes < 60) return `${minutes} min`;
  const hours = Math.floor(minutes / 60);
  if (hours < 48) return `${hours} h ${minutes % 60} min`;
  return `${Math.floor(hours / 24)} d`;
}

function setText(node, text) {
  if (node.textContent !== text) node.textContent = text;
}

// Shown in three lines at most, and whole under the pointer.
function setLongText(node, text) {
  setText(node, text);
  if (node.title !== text) node.title = text;
}

function makeCell(row, className, label) {
  const cell = row.insertCell();
  cell.className = className;
  if (label) cell.dataset.label = label;
  return cell;
}

function add(parent, className) {
  const node = document.createElement('span');
  node.className = className;
  node.dir = 'auto';
  return parent.appendChild(node);
}

function makeRow(path) {
  const row = document.createElement('tr');
  const service = makeCell(row, 'service');
  const uri = makeCell(row, 'uri');
  const cells = {
    name: add(service, 'name'),
    uuid: add(service, 'uuid'),
    uri: add(uri, 'address'),
    moved: add(uri, 'moved'),
    port: makeCell(row, 'number port', 'port'),
    age: makeCell(row, 'number age', 'age'),
  };
  const checked = makeCell(row, 'number checked', 'checked');
  cells.checked = add(checked, 'when');
  cells.expiry = add(checked, 'expiry');
  const known = {row, cells, lostAt: null};
  row.dataset.path = path;
  rows.set(path, known);
  return known;
}

function mark(known, className) {
  known.row.className = className;
  if (className === 'fresh') {
    setTimeout(() => known.row.classList.remove('fresh'), KEEP_FRESH);
  }
}

function setMove(node, entry) {
  node.hidden = !('movedFrom' in entry);
  if (node.hidden) return node.replaceChildren();
  if (!node.firstChild) {
    node.title = 'Another host or port was put at this path: do two instances share it?';
    node.append('was ');
    add(node, 'from');
    add(node, 'until');
  }
  setText(node.children[0], entry.movedFrom);
  setText(node.children[1], ` until ${duration(entry.moved)} ago`);
}

function show(entry) {
  const known = rows.get(entry.path) ?? makeRow(entry.path);
  const {cells} = known;
  const isNew = cells.uuid.textContent !== entry.uuid;
  if (isNew || known.lostAt !== null) mark(known, isFirst ? '' : 'fresh');
  known.lostAt = null;
  setLongText(cells.name, entry.name ?? entry.path);
  setText(cells.uuid, entry.uuid);
  setLongText(cells.uri, entry.uri ?? entry.path);
  setMove(cells.moved, entry);
  setText(cells.port, entry.port === null ? '–' : String(entry.port));
  setText(cells.age, duration(entry.age));
  setText(cells.checked, entry.checked === null ? 'not yet' : `${duration(entry.checked)} ago`);
  setText(cells.expiry, 'expires' in entry ? `expires in ${duration(entry.expires)}` : '');
  return known;
}

function lose(known, path, now) {
  if (known.lostAt === null) {
    known.lostAt = now;
    mark(known, 'lost');
  }
  setText(known.cells.checked, `gone ${duration(now - known.lostAt)} ago`);
  setText(known.cells.expiry, '');
  if (now - known.lostAt >= KEEP_LOST) drop(known, path);
}

function drop(known, path) {
  known.row.remove();
  rows.delete(path);
}

// The newest first; a row whose place has not changed is not touched.
function arrange(entries) {
  const body = $('rows');
  let next = body.firstElementChild;
  const skipLost = () => {
    while (next?.classList.contains('lost')) next = next.nextElementSibling;
  };
  for (const {row} of entries) {
    skipLost();
    if (row === next) {
      next = next.nextElementSibling;
    } else {
      body.insertBefore(row, next);
    }
  }
}

function filter() {
  const wanted = $('filter').value.trim().toLowerCase();
  let shown = 0;
  for (const {row, cells} of rows.values()) {
    const text = `${cells.name.textContent} ${cells.uri.textContent} ${cells.uuid.textContent} ${cells.port.textContent}`;
    row.hidden = wanted !== '' && !text.toLowerCase().includes(wanted);
    shown += row.hidden ? 0 : 1;
  }
  $('table').hidden = shown === 0;
  $('empty').hidden = rows.size > 0;
  return shown;
}

function render(list) {
  const seen = new Set(list.entries.map(entry => entry.path));
  const now = performance.now();
  for (const [path, known] of [...rows]) {
    if (seen.has(path)) continue;
    isCut(list) ? drop(known, path) : lose(known, path, now); // of a cut list nobody knows
  }
  arrange(list.entries.map(show));
  isFirst = false;
  setText($('count'), list.total.toLocaleString('en'));
  setText($('unit'), list.total === 1 ? 'service' : 'services');
  $('faults').hidden = list.faults === 0;
  setText($('faults'), `${list.faults} ${list.faults === 1 ? 'fault' : 'faults'} set`);
  summarize(list);
}

function isCut(list) {
  return list.total > list.entries.length;
}

function summarize(list) {
  const shown = filter();
  const nothingFits = shown === 0 && rows.size > 0;
  $('more').hidden = !isCut(list) && !nothingFits;
  setText($('more'), nothingFits ? 'No service fits the filter.'
    : `The newest ${list.entries.length.toLocaleString('en')} are shown.`);
}

function setState(state, text) {
  $('state').dataset.state = state;
  setText($('state').firstElementChild, text);
  $('notice').hidden = state !== 'gone';
  document.body.classList.toggle('stale', state === 'gone');
}

let last = null;
let lostSight = null;

async function poll() {
  try {
    const answer = await fetch('/-/entries', {cache: 'no-store', signal: AbortSignal.timeout(PATIENCE)});
    if (!answer.ok) throw new Error(`it answered ${answer.status}`);
    last = await answer.json();
    lostSight = null;
    setState('live', 'live');
    render(last);
  } catch (error) {
    lostSight ??= performance.now();
    setState('gone', 'not answering');
    setText($('notice'), `No answer from the registry for ${duration(performance.now() - lostSight)}. `
      + 'What is shown was known before; this page keeps asking.');
  }
}

async function follow() {
  for (;;) {
    if (!document.hidden) await poll();
    await new Promise(resume => setTimeout(resume, POLL));
  }
}

setText($('host'), location.host);
setText($('example'), `curl -X PUT ${location.origin}/lamp \\\n  -d '{"name":"lamp","uri":"/lamp","port":8080}'`);
$('filter').addEventListener('input', () => last && summarize(last));
document.addEventListener('visibilitychange', () => document.hidden || poll());
follow();
