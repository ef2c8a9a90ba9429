// The inspector page: one WebSocket to zarvo-host inspect. The program sends
// the tree, what changed, the rows of the windows this page shows, and log
// records; the page sends only which rows of each list it shows:
// "view LIST FIRST COUNT", or "jump ..." for rows past the list's known count.
'use strict';

const ROW = 22;                 // px, as --row in inspector.css
const MAX_LOG_ROWS = 2000;      // the program keeps as many
const $ = (selector, root) => (root || document).querySelector(selector);

function element(tag, className, text) {
  const node = document.createElement(tag);
  if (className) node.className = className;
  if (text !== undefined) node.textContent = text;
  return node;
}

function isImageUrl(value) {
  return typeof value === 'string' && /^https?:\/\//.test(value);
}

// A value as the page shows it: images as the engine's texture of them.
function renderValue(value) {
  if (isImageUrl(value)) {
    const span = element('span', 'image');
    const image = element('img', 'cover');
    image.src = 'image?url=' + encodeURIComponent(value);
    image.title = value;
    image.alt = value;
    image.onerror = () => fetch(image.src).then((r) => r.text()).then((why) => { image.title = why; });
    span.append(image, ' ', value);
    return span;
  }
  if (value !== null && typeof value === 'object') {
    return document.createTextNode('rows' in value ? '(' + value.rows + ' rows)' : '(object)');
  }
  return document.createTextNode(typeof value === 'string' ? JSON.stringify(value) : String(value));
}

function flash(node) {
  node.classList.remove('changed');
  void node.offsetWidth;  // restarts the animation
  node.classList.add('changed');
}

// One list of the tree, shown as a screen shows it: the rows in sight are
// asked for, and only those.
class ListView {
  constructor(inspector, node) {
    this.inspector = inspector;
    this.id = node.id;
    this.path = node.path;
    this.count = node.value ? node.value.rows : 0;
    this.rows = new Map();      // index -> [filled, fields]
    this.template = [];
    this.reach = 0;             // rows past the count the page jumped to
    this.sent = '';
    this.root = element('div', 'list');
    this.root.dataset.path = node.path;
    this.panel = element('div', 'panel');
    this.queries = element('div', 'queries');
    this.viewport = element('div', 'viewport');
    this.spacer = element('div', 'spacer');
    this.viewport.append(this.spacer);
    this.root.append(this.panel, this.queries, this.viewport);
    this.viewport.addEventListener('scroll', () => this.schedule());
    this.renderPanel({});
    this.layout();
  }

  // Scrolls so that `index` is the first row in sight, past the count if
  // need be.
  scrollTo(index) {
    this.reach = Math.max(this.reach, index + this.windowSize());
    this.layout();
    this.viewport.scrollTop = index * ROW;
    this.schedule();
  }

  windowSize() { return Math.ceil(this.viewport.clientHeight / ROW) + 1 || 11; }

  layout() {
    const rows = Math.max(this.count, this.reach);
    this.spacer.style.height = rows * ROW + 'px';
    this.viewport.style.height = Math.min(10, Math.max(1, rows)) * ROW + 'px';
  }

  schedule() {
    if (this.pending) return;
    this.pending = requestAnimationFrame(() => { this.pending = 0; this.request(); this.render(); });
  }

  request() {
    const first = Math.floor(this.viewport.scrollTop / ROW);
    const size = this.windowSize();
    // Past the count only where the page was sent there: a list that knows
    // its count (a runtime list) has no rows beyond it.
    const verb = this.reach > this.count && first + size > this.count ? 'jump' : 'view';
    const message = verb + ' ' + this.id + ' ' + first + ' ' + size;
    if (message !== this.sent) this.sent = this.inspector.send(message) ? message : '';
  }

  update(list) {
    if (list.template) this.template = list.template;
    for (const index of this.rows.keys()) {
      if (index < list.first || index >= list.first + list.size) this.rows.delete(index);
    }
    for (const [index, filled, fields] of list.rows) this.rows.set(index, [filled, fields]);
    if (list.panel) this.renderPanel(list.panel);
    this.render(list.rows.map((row) => row[0]));
  }

  setCount(count) {
    if (count === this.count) return;
    this.count = count;
    if (this.stats) this.stats.count.textContent = String(count);
    this.layout();
    this.schedule();
  }

  // The panel's figures, made once so that typing in "go to row" survives
  // the updates.
  makePanel() {
    this.stats = {};
    const stat = (name, label) => {
      const span = element('span', '', label + ' ');
      const value = element('b', '', '–');
      value.dataset.stat = name;
      this.stats[name] = value;
      span.append(value);
      this.panel.append(span);
    };
    stat('count', 'items');
    stat('heldHere', 'rows held here');
    stat('heldByViews', 'by all views');
    stat('unfilled', 'waiting');
    stat('sent', 'queries sent');
    stat('blocks', 'blocks fetched');
    stat('roundTripMs', 'last round trip ms');
    this.panel.append(element('span', 'note',
      'resident rows of the list\'s own cache: not visible through the list interface'));
    const go = element('input', 'goto');
    go.type = 'number';
    go.min = 0;
    go.placeholder = 'go to row';
    go.addEventListener('change', () => this.scrollTo(Number(go.value) || 0));
    this.panel.append(go);
  }

  renderPanel(panel) {
    if (!this.stats) this.makePanel();
    if (panel.count !== undefined) this.setCount(panel.count);
    const figures = Object.assign({ sent: 0, blocks: 0 }, panel, { count: this.count });
    if (figures.roundTripMs !== undefined) figures.roundTripMs = figures.roundTripMs.toFixed(1);
    for (const [name, value] of Object.entries(this.stats)) {
      value.textContent = figures[name] === undefined ? '–' : String(figures[name]);
    }
    this.queries.replaceChildren(...(panel.recent || []).slice().reverse().map(
      ([index, count, state]) => element('div', '', 'rows ' + index + '+' + count + ': ' + state)));
  }

  render(changedIndexes) {
    const first = Math.floor(this.viewport.scrollTop / ROW);
    const last = first + this.windowSize();
    const changed = new Set(changedIndexes || []);
    const shown = new Map();
    for (const node of Array.from(this.spacer.children)) {
      const index = Number(node.dataset.index);
      if (index < first || index >= last || changed.has(index)) node.remove();
      else shown.set(index, node);
    }
    for (let index = first; index < last && index < Math.max(this.count, this.reach); ++index) {
      if (shown.has(index)) continue;
      const row = this.rows.get(index);
      const node = element('div', 'row');
      node.dataset.index = index;
      node.style.top = index * ROW + 'px';
      node.append(element('span', 'index', String(index)));
      const filled = row && row[0];
      if (!filled) node.classList.add('placeholder');
      for (const [name, , value] of (filled ? row[1] : this.template)) {
        const field = element('span', 'field');
        field.dataset.name = name;
        field.append(element('span', 'label', name), renderValue(value));
        node.append(field);
      }
      if (changed.has(index) && filled) flash(node);
      this.spacer.append(node);
    }
  }
}

class Inspector {
  constructor() {
    this.nodes = new Map();     // id -> {node, valueElement}
    this.lists = new Map();     // id -> ListView
    this.scrolls = new Map();   // path -> scrollTop, kept across reloads
    this.reloads = null;
    this.categories = new Set();
    this.connect();
    for (const box of document.querySelectorAll('.filters input, .filters select')) {
      box.addEventListener('input', () => this.filterLog());
    }
  }

  connect() {
    const scheme = location.protocol === 'https:' ? 'wss://' : 'ws://';
    this.socket = new WebSocket(scheme + location.host + '/ws');
    this.socket.onmessage = (event) => this.receive(JSON.parse(event.data));
    this.socket.onclose = (event) => {
      this.banner('The inspector\'s connection closed' + (event.reason ? ': ' + event.reason : '') +
                  '; trying again.');
      setTimeout(() => this.connect(), 1000);
    };
    this.socket.onopen = () => { $('#banner').hidden = true; };
  }

  send(message) {
    if (this.socket.readyState !== WebSocket.OPEN) return false;
    this.socket.send(message);
    return true;
  }

  banner(text) {
    const banner = $('#banner');
    banner.textContent = text;
    banner.hidden = false;
  }

  receive(message) {
    if (message.header) this.header(message.header);
    if (message.tree) this.tree(message.tree);
    for (const [id, value] of message.changes || []) this.change(id, value);
    for (const list of message.lists || []) {
      const view = this.lists.get(list.id);
      if (view) view.update(list);
    }
    if (message.log) this.log(message.log);
  }

  header(header) {
    $('#source').textContent = header.source;
    const flag = $('#connected');
    flag.dataset.value = String(header.connected);
    $('b', flag).textContent = String(header.connected);
    $('#service').textContent = header.service ? 'service ' + header.service : 'no service';
    $('#client').textContent = header.client;
    $('#queries').textContent = header.queries;
    $('#browsers').textContent = header.browsers;
    $('#objects').textContent = header.liveObjects;
    $('#config').textContent = header.config;
    if (this.reloads !== null && header.reloads !== this.reloads) {
      this.banner('The source built a new tree (its configuration changed) at ' +
                  new Date().toLocaleTimeString() + '.');
    }
    this.reloads = header.reloads;
    $('#reloads').textContent = header.reloads;
  }

  tree(tree) {
    for (const view of this.lists.values()) this.scrolls.set(view.path, view.viewport.scrollTop);
    const paths = new Map();
    this.nodes.clear();
    this.lists.clear();
    const container = $('#tree');
    container.replaceChildren();
    for (const node of tree.nodes) {
      node.path = node.parent ? paths.get(node.parent) + '.' + node.name : node.name;
      paths.set(node.id, node.path);
      const line = element('div', 'node');
      line.dataset.path = node.path;
      line.style.paddingLeft = node.depth * 16 + 'px';
      line.append(element('span', 'name', node.name), element('span', 'type', node.type));
      const value = element('span', 'value');
      if (node.type !== 'object') value.append(renderValue(node.value));
      line.append(value);
      container.append(line);
      this.nodes.set(node.id, { node, value });
      if (node.type === 'list') {
        const view = new ListView(this, node);
        view.root.style.marginLeft = (node.depth + 1) * 16 + 'px';
        container.append(view.root);
        this.lists.set(node.id, view);
        view.viewport.scrollTop = this.scrolls.get(node.path) || 0;
        view.schedule();
      }
    }
    if (tree.cut) container.append(element('div', 'end', 'The tree has more objects than the inspector shows.'));
  }

  change(id, value) {
    const entry = this.nodes.get(id);
    if (!entry) return;
    entry.node.value = value;
    entry.value.replaceChildren(renderValue(value));
    flash(entry.value);
    const view = this.lists.get(id);
    if (view && value && typeof value === 'object') view.setCount(value.rows);
  }

  log(records) {
    const body = $('#log tbody');
    for (const [sequence, level, category, where, text] of records) {
      const row = element('tr', level);
      row.dataset.level = level;
      row.dataset.category = category;
      row.dataset.sequence = sequence;
      const message = element('td', '', text);
      message.append(element('div', 'where', where));
      row.append(element('td', '', level), element('td', '', category), message);
      body.append(row);
      if (!this.categories.has(category)) {
        this.categories.add(category);
        $('#category').append(new Option(category, category));
      }
    }
    while (body.rows.length > MAX_LOG_ROWS) body.deleteRow(0);
    this.filterLog();
  }

  filterLog() {
    const levels = new Set(Array.from(document.querySelectorAll('.filters input[data-level]'))
      .filter((box) => box.checked).map((box) => box.dataset.level));
    const category = $('#category').value;
    const text = $('#log-text').value.toLowerCase();
    for (const row of $('#log tbody').rows) {
      row.hidden = !levels.has(row.dataset.level) || (category && row.dataset.category !== category) ||
                   (text && !row.textContent.toLowerCase().includes(text));
    }
  }

  // For scripts driving the page: the list at `path` scrolled to `index`.
  scrollList(path, index) {
    for (const view of this.lists.values()) {
      if (view.path === path) { view.scrollTo(index); return true; }
    }
    return false;
  }
}

window.inspector = new Inspector();
