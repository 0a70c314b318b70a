// Follows the registry's stream and shows the entries. The document contains only the rows near the
// window. Texts of entries are set only as textContent, in elements that isolate their writing direction.
// A row is identified by the path of its entry, so a service that is registered again returns to it.
'use strict';

const RETRY_PAUSE = 1000;
const SILENCE_LIMIT = 6000; // milliseconds without an event: three heartbeats of the stream
const LOST_SHOWN_FOR = 8000;
const FRESH_SHOWN_FOR = 2000;
const MARGIN = 8; // rows in the document before and after those in the window
const NEWEST_FIRST = 'age';

const $ = id => document.getElementById(id);
const entries = new Map(); // by key: the path, or the uuid where the path may be cut or is not UTF-8
const keys = new Map(); // by uuid
let sorted = [];
let view = []; // the entries of `sorted` that match the filter
let isFirstList = true;
let listing = 0; // the number of the list that is being received, or of the last one
let ttl = null;

function setText(node, text) {
  if (node.textContent !== text) node.textContent = text;
}

function add(parent, tag, className, isForeign) {
  const node = document.createElement(tag);
  if (className) node.className = className;
  if (isForeign) node.dir = 'auto';
  return parent.appendChild(node);
}

function duration(milliseconds) {
  const seconds = Math.max(0, Math.floor(milliseconds / 1000));
  if (seconds < 60) return `${seconds} s`;
  const minutes = Math.floor(seconds / 60);
  if (minutes < 60) return `${minutes} min`;
  const hours = Math.floor(minutes / 60);
  if (hours < 48) return `${hours} h ${minutes % 60} min`;
  return `${Math.floor(hours / 24)} d`;
}

const ago = time => `${duration(performance.now() - time)} ago`;
const asText = value => typeof value === 'string' ? value : JSON.stringify(value);

// --- The entries from the events of the stream

const hostOf = ({host}) => typeof host === 'string' ? (host.includes(':') ? `[${host}]` : host) : '';
const portOf = ({port}) => typeof port === 'number' ? `:${port}` : '';

// Gives the entry another key, and keeps its row.
function changeKey(entry, key) {
  const replaced = entries.get(key); // is gone, since a path has one entry
  if (replaced) removeEntry(replaced);
  if (active === entry.key) active = key;
  if (opened === entry.key) {
    opened = key;
    writeAddress();
  }
  entries.delete(entry.key);
  entry.key = key;
  entries.set(key, entry);
}

function put(data, raw) {
  const now = performance.now();
  const key = 'cut' in data || data.path.includes('\ufffd') ? data.uuid : data.path;
  const {service} = data;
  const name = typeof service.name === 'string' ? service.name : data.path;
  const uri = typeof service.uri === 'string' ? service.uri : data.path;
  const shownHost = hostOf(service);
  const shownPort = portOf(service);
  const address = shownHost + shownPort;
  const values = { // before the first change, so that no entry lacks some of them
    raw, name, uri, address, shownHost, shownPort, uuid: data.uuid, number: data.number, checks: data.checks, list: listing, lostAt: null, cut: data.cut,
    created: now - data.age, renewed: now - data.renewed,
    checked: 'checked' in data ? now - data.checked : null,
    moved: data.moved ? {from: data.moved.from, at: now - data.moved.age} : null,
    text: `${name} ${address} ${uri} ${data.uuid}`.toLowerCase(),
    order: name.toLowerCase(), host: asText(service.host ?? ''), port: Number(asText(service.port ?? 0)) || 0,
  };
  const former = entries.get(keys.get(data.uuid));
  if (former && former.key !== key) changeKey(former, key); // the description became long, or short
  const known = entries.get(key);
  const entry = known ?? {key, freshAt: null};
  if (!known) {
    entries.set(key, entry);
    sorted.push(entry);
  } else if (known.uuid !== data.uuid) {
    keys.delete(known.uuid);
  }
  if (!isFirstList && (known?.uuid !== data.uuid || known.lostAt !== null)) entry.freshAt = now;
  keys.set(data.uuid, key);
  Object.assign(entry, values);
}

function check([uuid, checks, age]) {
  const entry = entries.get(keys.get(uuid));
  if (entry) Object.assign(entry, {checks, checked: performance.now() - age, renewed: performance.now() - age});
}

function markLost(entry) {
  entry.lostAt ??= performance.now();
}

function removeEntry(entry) {
  entries.delete(entry.key);
  if (keys.get(entry.uuid) === entry.key) keys.delete(entry.uuid);
}

const handlers = {
  state(data) {
    ttl = data.ttl;
    $('faults').hidden = data.faults === 0;
    setText($('faults'), `${data.faults} ${data.faults === 1 ? 'fault' : 'faults'} set`);
  },
  list() { ++listing; },
  put,
  checked(data) { data.forEach(check); },
  removed({uuid}) {
    const entry = entries.get(keys.get(uuid));
    if (entry) markLost(entry);
  },
  listed() {
    for (const entry of entries.values()) {
      if (entry.list !== listing) markLost(entry); // in an earlier list, but not in this one
    }
    isFirstList = false;
  },
};

// --- The stream

let lastId = '';
let isHeard = false;
let stream = new AbortController();

function receive(text) {
  const fields = {};
  for (const line of text.split('\n')) {
    const end = line.indexOf(': ');
    fields[line.slice(0, end)] = line.slice(end + 2);
  }
  try {
    handlers[fields.event]?.(JSON.parse(fields.data), fields.data);
  } catch (error) {
    console.error(error); // the other events are still applied, and this one is not requested again
  }
  if (fields.id) lastId = fields.id;
}

async function read() {
  stream = new AbortController();
  let watchdog;
  const restartWatchdog = () => {
    clearTimeout(watchdog);
    watchdog = setTimeout(() => {
      setState('gone', 'not answering');
      stream.abort();
    }, SILENCE_LIMIT);
  };
  restartWatchdog();
  try {
    const answer = await fetch('/-/watch', {
      cache: 'no-store', signal: stream.signal, headers: lastId ? {'Last-Event-ID': lastId} : {}});
    if (!answer.ok) throw new Error(`it answered ${answer.status}`);
    const reader = answer.body.pipeThrough(new TextDecoderStream()).getReader();
    for (let rest = '';;) {
      const {done, value} = await reader.read();
      if (done) return;
      restartWatchdog();
      isHeard = true;
      setState('live', 'live');
      const events = (rest + value).split('\n\n');
      rest = events.pop();
      events.forEach(receive);
      requestUpdate(true);
    }
  } finally {
    clearTimeout(watchdog);
  }
}

const pause = time => new Promise(resume => setTimeout(resume, time));
const untilVisible = () => new Promise(resume => {
  if (!document.hidden) return resume();
  document.addEventListener('visibilitychange', resume, {once: true});
});

// Requests the stream again after its end. If no event comes then, the registry counts as gone.
async function follow() {
  for (;;) {
    await untilVisible();
    const begin = performance.now();
    isHeard = false;
    await read().catch(() => {});
    if (document.hidden) continue;
    if (!isHeard) setState('gone', 'not answering');
    if (performance.now() - begin < RETRY_PAUSE) await pause(isHeard ? RETRY_PAUSE / 10 : RETRY_PAUSE);
  }
}

// Does nothing if the state is the same, so that screen readers announce it once.
function setState(state, text) {
  if ($('state').dataset.state === state) return;
  $('state').dataset.state = state;
  setText($('state').firstElementChild, text);
  setText($('notice'), state !== 'gone' ? ''
    : `No answer from the registry since ${new Date().toLocaleTimeString()}. `
      + 'What is shown was known before; this page keeps asking.');
  document.body.classList.toggle('stale', state === 'gone');
}

// --- Filter and order, which are stored in the address: #q=lamp&sort=-name&open=/lamp

const byText = (one, other) => one < other ? -1 : one > other ? 1 : 0;
const orders = {
  name: (one, other) => byText(one.order, other.order),
  address: (one, other) => byText(one.host, other.host) || one.port - other.port,
  uri: (one, other) => byText(one.uri, other.uri),
  age: (one, other) => other.number - one.number,
  check: (one, other) => (other.checked ?? -Infinity) - (one.checked ?? -Infinity) || 0,
};
let sort = NEWEST_FIRST;
let opened = null;

function readAddress() {
  const address = new URLSearchParams(location.hash.slice(1));
  sort = address.get('sort') ?? NEWEST_FIRST;
  if (!Object.hasOwn(orders, sort.replace(/^-/, ''))) sort = NEWEST_FIRST;
  const filter = address.get('q') ?? '';
  if ($('filter').value.trim() !== filter) $('filter').value = filter;
  opened = address.get('open');
}

function writeAddress() {
  const address = new URLSearchParams();
  if ($('filter').value.trim()) address.set('q', $('filter').value.trim());
  if (sort !== NEWEST_FIRST) address.set('sort', sort);
  if (opened !== null) address.set('open', opened);
  history.replaceState(null, '', address.size > 0 ? `#${address}` : location.pathname);
}

function arrange() {
  const order = orders[sort.replace(/^-/, '')];
  const sign = sort.startsWith('-') ? -1 : 1;
  if (sorted.length !== entries.size) sorted = sorted.filter(entry => entries.get(entry.key) === entry);
  sorted.sort((one, other) => sign * order(one, other) || byText(one.order, other.order) || byText(one.key, other.key));
  const wanted = $('filter').value.trim().toLowerCase().split(/\s+/);
  view = wanted[0] === '' ? sorted : sorted.filter(entry => wanted.every(word => entry.text.includes(word)));
  for (const head of document.querySelectorAll('th')) {
    if (head.dataset.sort === sort.replace(/^-/, '')) {
      head.setAttribute('aria-sort', sign < 0 ? 'descending' : 'ascending');
    } else {
      head.removeAttribute('aria-sort');
    }
  }
}

function summarize() {
  const alive = list => list.reduce((sum, entry) => sum + (entry.lostAt === null ? 1 : 0), 0);
  const all = alive(sorted);
  const count = number => number.toLocaleString('en');
  const shown = view === sorted ? '' : `${count(alive(view))} of `;
  const text = `${shown}${count(all)} ${all === 1 ? 'service' : 'services'}`;
  if ($('count').textContent !== text) {
    $('count').replaceChildren();
    add($('count'), 'strong').textContent = shown || count(all);
    $('count').append(text.slice((shown || count(all)).length));
  }
  $('table').hidden = view.length === 0;
  $('none').hidden = view.length > 0 || sorted.length === 0;
  $('empty').hidden = sorted.length > 0 || isFirstList;
  $('table').setAttribute('aria-rowcount', view.length + 1);
  return text;
}

// --- The rows near the window

const shownRows = new Map(); // by key
let active = null; // the key of the row that was focused last
let tabStop = null; // the key of the row that Tab reaches

const rowHeight = () => parseFloat(getComputedStyle(document.documentElement).getPropertyValue('--row'))
  * parseFloat(getComputedStyle(document.documentElement).fontSize);

function makeCell(row, className, label) {
  const cell = add(row, 'td', className);
  cell.setAttribute('role', 'cell');
  if (label) cell.dataset.label = label;
  return cell;
}

function makeRow() {
  const row = document.createElement('tr');
  row.setAttribute('role', 'row');
  const service = makeCell(row, 'service');
  const name = add(service, 'button', 'open', true);
  name.type = 'button';
  name.setAttribute('aria-haspopup', 'dialog');
  const uuid = add(service, 'span', 'uuid', true);
  const where = makeCell(row, 'where');
  const address = add(where, 'span', 'address');
  const host = add(address, 'span', 'host', true);
  const port = add(address, 'span', 'port'); // in an element of its own, which a long host does not hide
  const moved = add(where, 'span', 'moved');
  const uri = add(makeCell(row, 'path'), 'span', 'uri', true);
  const age = add(makeCell(row, 'time', 'age'), 'span', 'age');
  const last = makeCell(row, 'time checks', 'checked');
  return {row, name, uuid, host, port, moved, uri, age, checked: add(last, 'span', 'checked'), expiry: add(last, 'span', 'expiry')};
}

function fill(shown, entry, index, height) {
  const now = performance.now();
  const {row} = shown;
  const fresh = entry.freshAt !== null && now - entry.freshAt < FRESH_SHOWN_FOR;
  const state = entry.lostAt !== null ? 'lost' : fresh ? 'fresh' : '';
  if (row.dataset.key !== entry.key) row.dataset.key = entry.key;
  if (row.className !== state) row.className = state;
  const place = `translateY(${index * height}px)`;
  if (row.style.transform !== place) row.style.transform = place;
  if (row.getAttribute('aria-rowindex') !== String(index + 2)) row.setAttribute('aria-rowindex', index + 2);
  shown.name.tabIndex = entry.key === tabStop ? 0 : -1;
  setText(shown.name, entry.name);
  setText(shown.uuid, entry.uuid);
  setText(shown.host, entry.shownHost || (entry.shownPort ? '' : '–'));
  setText(shown.port, entry.shownPort);
  setMove(shown.moved, entry);
  setText(shown.uri, entry.uri);
  setText(shown.age, duration(now - entry.created));
  setText(shown.checked, entry.lostAt !== null ? `gone ${ago(entry.lostAt)}` : entry.checked === null ? 'not yet' : ago(entry.checked));
  setText(shown.expiry, expiryOf(entry));
}

function setMove(node, entry) {
  node.hidden = entry.moved === null;
  if (node.hidden) return node.replaceChildren();
  if (!node.firstChild) {
    node.append('was ');
    add(node, 'span', 'from', true);
    add(node, 'span', 'until');
  }
  setText(node.children[0], entry.moved.from);
  setText(node.children[1], ` until ${ago(entry.moved.at)}`);
}

function expiryOf(entry) {
  return ttl === null || entry.lostAt !== null ? '' : `expires in ${duration(entry.renewed + ttl - performance.now())}`;
}

function renderRows() {
  const height = rowHeight();
  const body = $('rows');
  const total = `${view.length * height}px`;
  if (body.style.height !== total) body.style.height = total;
  const top = -body.getBoundingClientRect().top;
  const first = Math.max(0, Math.floor(top / height) - MARGIN);
  const last = Math.min(view.length, Math.ceil((top + innerHeight) / height) + MARGIN);
  const wanted = new Map();
  for (let index = first; index < last; ++index) wanted.set(view[index].key, index);

  const focused = document.activeElement.closest?.('#rows tr')?.dataset.key;
  const focusedIndex = focused === undefined || wanted.has(focused) ? -1 : view.findIndex(entry => entry.key === focused);
  if (focusedIndex >= 0) wanted.set(focused, focusedIndex); // the focused row stays in the document
  const firstInWindow = Math.min(first + (first > 0 ? MARGIN : 0), view.length - 1);
  tabStop = wanted.has(active) ? active : view[firstInWindow]?.key;

  const unused = [];
  for (const [key, shown] of [...shownRows].sort((one, other) => one[1].index - other[1].index)) {
    if (wanted.has(key)) continue;
    unused.push(shown);
    shownRows.delete(key);
  }
  // Unneeded rows are reused for other entries.
  for (const {row} of unused.splice(wanted.size - shownRows.size)) row.remove();
  // In the document the rows have the order of the list, for screen readers.
  let next = body.firstElementChild;
  for (const [key, index] of [...wanted].sort((one, other) => one[1] - other[1])) {
    if (!shownRows.has(key)) shownRows.set(key, unused.shift() ?? makeRow());
    const shown = shownRows.get(key);
    shown.index = index;
    fill(shown, entries.get(key), index, height);
    if (shown.row === next) {
      next = next.nextElementSibling;
    } else if (shown.row.contains(document.activeElement)) { // moving the row would remove its focus
      while (next !== shown.row) {
        const other = next;
        next = next.nextElementSibling;
        body.append(other);
      }
      next = next.nextElementSibling;
    } else {
      body.insertBefore(shown.row, next);
    }
  }
  if (focused !== undefined && !shownRows.has(focused)) shownRows.get(tabStop)?.name.focus({preventScroll: true});
}

// Keeps the visible rows at their position when rows above them are added or removed.
function keepPlace(change) {
  const top = () => $('rows').getBoundingClientRect().top;
  const height = rowHeight();
  const index = Math.max(0, Math.ceil(-top() / height));
  const anchor = -top() > 0 ? view[index] : undefined;
  change();
  const moved = anchor ? view.indexOf(anchor) - index : 0;
  renderRows(); // sets the height of the table before scrolling
  if (anchor && moved !== 0 && view.includes(anchor)) {
    scrollBy({top: moved * height, behavior: 'instant'});
    renderRows();
  }
}

function moveTo(index) {
  if (view.length === 0) return;
  const entry = view[Math.max(0, Math.min(index, view.length - 1))];
  const place = view.indexOf(entry);
  const height = rowHeight();
  const top = $('rows').getBoundingClientRect().top + place * height;
  const head = document.querySelector('thead').offsetHeight;
  if (top < head) scrollBy({top: top - head, behavior: 'instant'});
  if (top + height > innerHeight) scrollBy({top: top + height - innerHeight, behavior: 'instant'});
  active = entry.key;
  renderRows();
  shownRows.get(active).name.focus({preventScroll: true});
}

const steps = {
  ArrowDown: index => index + 1,
  ArrowUp: index => index - 1,
  PageDown: index => index + Math.floor(innerHeight / rowHeight() - 2),
  PageUp: index => index - Math.floor(innerHeight / rowHeight() - 2),
  Home: () => 0,
  End: () => view.length - 1,
};

$('rows').addEventListener('keydown', event => {
  const step = steps[event.key];
  if (!step || event.ctrlKey || event.altKey || event.metaKey) return;
  event.preventDefault();
  moveTo(step(view.findIndex(entry => entry.key === active)));
});
$('rows').addEventListener('focusin', event => {
  active = event.target.closest('tr').dataset.key;
  requestUpdate(false); // updates the row that Tab reaches
});
$('rows').addEventListener('click', event => {
  const key = event.target.closest('.open')?.closest('tr').dataset.key;
  if (key === undefined) return;
  opened = key;
  writeAddress();
  showDetail();
});

// --- The details of one entry

const time = at => `${ago(at)}, ${new Date(Date.now() - performance.now() + at).toLocaleString()}`;
// Shows numbers with all their digits, and escapes the controls of the writing direction.
const exactly = (key, value, context) => typeof value === 'number' && JSON.rawJSON && context
  && String(value) !== context.source ? JSON.rawJSON(context.source) : value;
const rawJson = service => JSON.stringify(service, null, 2)
  .replace(/[\u061c\u200e\u200f\u202a-\u202e\u2066-\u2069]/g, letter => `\\u${letter.charCodeAt(0).toString(16).padStart(4, '0')}`);

function factsOf(entry, data) {
  const facts = [['Address', entry.address || '–']];
  for (const [name, value] of Object.entries(data.service)) {
    if (['name', 'host', 'port'].includes(name)) continue;
    const isPlainList = Array.isArray(value) && value.every(item => typeof item !== 'object');
    facts.push([name, isPlainList ? value.join(', ') || '–' : asText(value)]);
  }
  facts.push(['Path of the entry', data.path], ['UUID', entry.uuid], ['Registered', time(entry.created)]);
  facts.push(['Last check', entry.checked === null ? 'not yet' : time(entry.checked)], ['Checks', String(entry.checks)]);
  if (entry.renewed !== entry.checked) facts.push(['Renewed', time(entry.renewed)]);
  if (expiryOf(entry)) facts.push(['Expiry', expiryOf(entry)]);
  if (entry.moved) {
    facts.push(['Address before', `${entry.moved.from}, until ${ago(entry.moved.at)}. Do two instances share the path?`]);
  }
  return facts;
}

function showDetail() {
  const entry = opened === null ? undefined : entries.get(opened);
  const dialog = $('detail');
  $('detail-gone').hidden = entry !== undefined && entry.lostAt === null;
  if (!entry) {
    if (opened === null && dialog.open) dialog.close();
    return;
  }
  const data = JSON.parse(entry.raw, exactly);
  setText($('detail-name'), entry.name);
  const facts = factsOf(entry, data);
  while ($('facts').childElementCount > facts.length * 2) $('facts').lastElementChild.remove();
  while ($('facts').childElementCount < facts.length * 2) {
    add($('facts'), 'dt', '', true);
    add($('facts'), 'dd', '', true);
  }
  facts.flat().forEach((text, index) => setText($('facts').children[index], text));
  setText($('raw'), rawJson(data.service));
  $('cut').hidden = entry.cut === undefined;
  setText($('cut-size'), String(entry.cut));
  $('cut-link').href = `/${entry.uuid}`;
  if (!dialog.open) {
    setText($('copied'), '');
    dialog.showModal();
  }
}

$('detail').addEventListener('close', () => {
  opened = null;
  writeAddress();
});
$('detail').addEventListener('click', event => event.target === $('detail') && isOutside(event) && $('detail').close());
$('close').addEventListener('click', () => $('detail').close());
$('copy').addEventListener('click', () => {
  getSelection().selectAllChildren($('raw'));
  // navigator.clipboard exists only over TLS and for localhost.
  setText($('copied'), document.execCommand('copy') ? 'Copied' : 'Selected');
});

function isOutside({clientX}) {
  return clientX < $('detail').getBoundingClientRect().left;
}

// --- Updates, at most one per frame

let isRequested = false;
let isChanged = false;

function requestUpdate(changed) {
  isChanged ||= changed;
  if (isRequested) return;
  isRequested = true;
  requestAnimationFrame(update);
}

function update() {
  isRequested = false;
  if (isChanged) {
    keepPlace(() => {
      arrange();
      summarize();
    });
  } else {
    renderRows();
  }
  isChanged = false;
  showDetail();
}

function everySecond() {
  const now = performance.now();
  let dropped = false;
  for (const entry of sorted) {
    if (entry.lostAt !== null && now - entry.lostAt >= LOST_SHOWN_FOR) {
      removeEntry(entry);
      dropped = true;
    }
  }
  requestUpdate(dropped);
}

let announcement;

function filterOrSort() {
  writeAddress();
  requestUpdate(true);
  clearTimeout(announcement);
  announcement = setTimeout(() => setText($('found'), summarize()), 500);
}

for (const button of document.querySelectorAll('th button')) {
  button.addEventListener('click', () => {
    const key = button.parentElement.dataset.sort;
    sort = sort === key ? `-${key}` : key;
    filterOrSort();
  });
}
$('filter').addEventListener('input', filterOrSort);
addEventListener('hashchange', () => {
  readAddress();
  requestUpdate(true);
});
addEventListener('scroll', () => requestUpdate(false), {passive: true});
addEventListener('resize', () => requestUpdate(false));
document.addEventListener('visibilitychange', () => document.hidden && stream.abort());

setText($('host'), location.host);
setText($('example'), `curl -X PUT ${location.origin}/lamp \\\n  -d '{"name":"lamp","uri":"/lamp","host":"localhost","port":8080}'`);
readAddress();
setInterval(everySecond, 1000);
follow();
