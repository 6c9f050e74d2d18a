// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// What is known, as elements. Texts go in as texts only: whoever publishes an instance chooses them.

import {BUCKETS, BUCKET_MS} from './model.js';

const SVG = 'http://www.w3.org/2000/svg';
const byId = (id) => document.getElementById(id);
const number = new Intl.NumberFormat('en');
const plural = (count, word) => `${number.format(count)} ${word}${count === 1 ? '' : 's'}`;

function element(name, attributes = {}, ...children) {
  const made = document.createElement(name);
  for (const [key, value] of Object.entries(attributes)) if (value !== null) made.setAttribute(key, value);
  made.append(...children);
  return made;
}

/** A cell that knows its column's name, for narrow screens; these lose the roles of a table, so they are said. */
function cell(label, className, ...children) {
  const isVoid = children.every((child) => child === '');
  return element('td', {'role': 'cell', 'data-label': label, 'class': `${className}${isVoid ? ' void' : ''}`}, ...children);
}

function setText(id, text) {
  const target = byId(id);
  if (target.textContent !== text) target.textContent = text;
}

/** "3 min", of milliseconds. */
export function duration(ms) {
  const seconds = Math.max(0, Math.round(ms / 1000));
  if (seconds < 60) return `${seconds} s`;
  const minutes = Math.floor(seconds / 60);
  if (minutes < 60) return `${minutes} min`;
  const hours = Math.floor(minutes / 60);
  return hours < 48 ? `${hours} h ${minutes % 60} min` : `${Math.floor(hours / 24)} days`;
}

function badge(kind, sign, words) {
  return element('span', {class: `state ${kind}`}, element('span', {'class': 'sign', 'aria-hidden': 'true'}, sign), words);
}

function centreBadge(state, now, isLost) {
  if (state.freshness === 'live') return isLost ? badge('idle', '◌', 'live when last heard of') : badge('good', '●', 'live');
  if (state.freshness === 'stale') {
    return badge('warn', '▲', `stale for ${duration(now - Date.parse(state.stale_since))}, shown as last known`);
  }
  if (state.freshness === 'restored') {
    return badge('warn', '▲', `not read yet, shown as known ${duration(now - Date.parse(state.restored_as_of))} ago`);
  }
  return state.connection === 'authentication failed' ? badge('bad', '✕', 'not readable, authentication failed')
    : badge('idle', '○', `not read yet, ${state.connection}`);
}

function instanceBadge(data, isLive) {
  if (data.status !== 'ok') return badge(data.status === 'degraded' ? 'warn' : 'bad', '▲', data.status);
  if (data.held) return badge('warn', '◆', 'held, its node is gone');
  return isLive ? badge('good', '●', 'ok') : badge('idle', '◌', 'ok when last seen');
}

/** Puts `wanted` (of {key, print, make}) into `parent`, and makes anew only the rows whose print has changed. */
function patchRows(parent, wanted) {
  const present = new Map([...parent.children].map((row) => [row.dataset.key, row]));
  const rows = wanted.map(({key, print, make}) => {
    const row = present.get(key);
    if (row?.dataset.print === print) return row;
    const made = make();
    made.dataset.key = key;
    made.dataset.print = print;
    return made;
  });
  const isSame = rows.length === parent.children.length && rows.every((row, i) => row === parent.children[i]);
  if (!isSame) parent.replaceChildren(...rows);
}

export function showServices(services, current, hrefOf) {
  patchRows(byId('services'), services.map((service) => {
    const down = service.data_centers.filter((state) => state.freshness !== 'live').length;
    const print = JSON.stringify([service.instances, down, service.service === current]);
    const make = () => element('li', {}, element('a', {
      'href': hrefOf(service.service), 'aria-current': service.service === current ? 'page' : null,
    }, service.service, element('span', {class: 'count'}, number.format(service.instances)),
    ...(down ? [element('span', {class: 'mind'}, `▲ ${down} not live`)] : [])));
    return {key: service.service, print, make};
  }));
}

export function showCentres(model, perCentre, now, isLost) {
  const states = [...model.centres.values()].sort((a, b) => (a.freshness === 'live') - (b.freshness === 'live') ||
    (a.data_center < b.data_center ? -1 : 1));
  const rows = states.map((state) => {
    const {instances, held} = perCentre.get(state.data_center) ?? {instances: 0, held: 0};
    const count = (label, value) => cell(label, `number${value ? '' : ' zero-count'}`, number.format(value));
    const error = state.freshness === 'live' ? '' : state.last_error || state.last_read_error;
    const since = state.stale_since ?? state.restored_as_of;
    const age = since ? duration(now - Date.parse(since)) : '';
    const make = () => element('tr', {role: 'row'},
      element('th', {scope: 'row', role: 'rowheader'}, state.data_center), cell('State', '', centreBadge(state, now, isLost)),
      count('Instances', instances), count('Held', held), count('Unreadable', state.unreadable),
      cell('Session', 'session', element('span', {}, state.connection, ' ', element('span', {class: 'mono quiet'},
        state.connection === 'connected' ? state.session_id : ''))),
      cell('Last error', 'error', error));
    return {key: state.data_center, print: JSON.stringify([state, instances, held, age, isLost]), make};
  });
  patchRows(byId('centres'), rows);
}

function addressOf(data) {
  const main = data.ports.find((port) => port.name === '');
  const others = data.ports.filter((port) => port.name !== '').map((port) => `${port.name}=${port.port}`).join(' ');
  const host = data.host.includes(':') ? `[${data.host}]` : data.host;
  const text = main ? `${host}:${main.port}` : host;
  return element('span', {}, element('b', {}, text), ...(others ? [' ', element('span', {class: 'ports'}, others)] : []),
    element('span', {class: 'id mono'}, data.id));
}

function instanceRow({data}, isLive, isNew, started) {
  const tags = Object.entries(data.attributes).map(([name, value]) => element('span', {class: 'tag'}, `${name}=${value}`));
  return element('tr', {'role': 'row', 'class': isNew ? 'new' : ''},
    cell('Status', '', element('span', {}, instanceBadge(data, isLive),
      ...(isNew ? [element('span', {class: 'tag fresh'}, 'new')] : []))),
    cell('Data centre', '', data.data_center),
    cell('Address', '', addressOf(data)), cell('Version', '', data.version),
    cell('Weight', 'number', data.weight ? String(data.weight) : ''), cell('Started', 'quiet', started),
    cell('Attributes', 'wrap', ...(tags.length ? [element('span', {}, ...tags)] : [''])));
}

export function showInstances(model, found, cap, now) {
  const rows = found.slice(0, cap).map(({entry, isNew}) => {
    const isLive = model.centres.get(entry.data.data_center)?.freshness === 'live';
    const started = entry.data.start_time_ms ? `${duration(now - entry.data.start_time_ms)} ago` : '';
    return {key: entry.key, print: JSON.stringify([entry.data, isLive, isNew, started]),
      make: () => instanceRow(entry, isLive, isNew, started)};
  });
  patchRows(byId('rows'), rows);
  const rest = found.length - rows.length;
  byId('more').hidden = rest === 0;
  if (rest > 0) setText('more', `Show ${number.format(Math.min(rest, 500))} more of ${number.format(rest)}`);
  const nothing = byId('nothing');
  nothing.hidden = !model.complete || found.length > 0;
  setText('nothing', model.instances.size === 0 ? 'No instance is published in any data centre that was read.'
    : 'None of them fits the filter.');
  const all = model.instances.size;
  const fit = found.length === all ? '' : `, ${number.format(found.length)} fit the filter`;
  setText('shown', model.complete ? `${number.format(rows.length)} of ${number.format(all)} shown${fit}` : 'reading …');
}

export function showFigures(service, model, counts) {
  setText('name', service || 'no service is followed');
  if (!model.complete) return ['total', 'live', 'problems'].forEach((id) => setText(id, '–'));
  setText('total', number.format(model.instances.size));
  byId('live').replaceChildren(String(counts.live), element('small', {}, ` of ${model.centres.size}`));
  byId('live').className = counts.live === model.centres.size ? '' : counts.live === 0 ? 'bad' : 'warn';
  setText('problems', number.format(counts.problems));
  byId('problems').className = counts.problems ? 'warn' : '';
  setText('summary', `${service}: ${counts.live} of ${plural(model.centres.size, 'data centre')} live`);
  document.title = `${counts.live === model.centres.size ? '' : '▲ '}${service} · halden`;
}

/** Bars of joins above a line, of leaves below it; grey where nobody looked yet. */
export function showFlow(model, now) {
  const {first, buckets, joined, left} = model.history(now);
  const [width, half] = [600 / BUCKETS, 36];
  const most = Math.max(4, ...buckets.map((bucket) => Math.max(bucket.joined, bucket.left)));
  const shapes = [];
  const add = (name, attributes) => {
    const shape = document.createElementNS(SVG, name);
    for (const [key, value] of Object.entries(attributes)) shape.setAttribute(key, value);
    shapes.push(shape);
  };
  const unknown = model.complete ? Math.max(0, Math.floor(model.begin / BUCKET_MS) - first - 1) : BUCKETS;
  add('rect', {class: 'unknown', x: 0, y: 0, width: Math.min(unknown, BUCKETS) * width, height: 2 * half});
  add('line', {class: 'zero', x1: 0, x2: 600, y1: half, y2: half});
  for (const bucket of buckets) {
    const x = (bucket.at - first - 1) * width + 0.5;
    const height = (count) => (count ? Math.max(3, (half - 2) * Math.sqrt(count / most)) : 0); // small ones stay visible
    add('rect', {class: 'up', x, y: half - 1 - height(bucket.joined), width: width - 1, height: height(bucket.joined)});
    add('rect', {class: 'down', x, y: half + 1, width: width - 1, height: height(bucket.left)});
  }
  byId('drawing').replaceChildren(...shapes);
  byId('drawing').setAttribute('aria-label', `${joined} joined and ${left} left in the last ten minutes`);
  setText('joined', number.format(joined));
  setText('left', number.format(left));
}

/** Tells who listens to the page instead of seeing it. */
export function say(text) {
  setText('said', text);
}

/** `lostAt`: since when the agent does not answer; 0 while it does; null before the first answer. */
export function showLink(lostAt, now) {
  byId('link').className = `link ${lostAt === null ? '' : lostAt ? 'off' : 'on'}`;
  setText('link-text', lostAt === null ? 'connecting' : lostAt ? 'agent unreachable' : 'live from the agent');
  byId('main').classList.toggle('lost', Boolean(lostAt));
  byId('alert').hidden = !lostAt;
  const at = new Date(lostAt ?? 0).toLocaleTimeString('en-GB');
  if (lostAt) document.title = '✕ agent unreachable · halden';
  if (lostAt) setText('alert', `Agent unreachable since ${at}: what is shown is from then, trying again.`);
}
