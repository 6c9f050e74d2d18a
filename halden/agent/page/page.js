// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// Follows one service through the agent's stream, and shows it.

import {Model} from './model.js';
import * as view from './view.js';

const FIRST_ROWS = 100;
const MORE_ROWS = 500;
const DRAW_MS = 200; // at most as often: a burst of thousands costs a few drawings
const SERVICES_MS = 10000;
const ANSWER_MS = 8000; // an agent that has not answered by then does not
const SILENCE_MS = 35000; // two heartbeats and some
const RETRY_MS = 2000;
const UNSEEN_MS = 60000; // a page that nobody sees gives its stream up: browsers have six connections for all pages

const filter = document.getElementById('filter');
const onlyProblems = document.getElementById('only-problems');

let model = new Model();
let services = [];
let service = '';
let stream = null;
let cap = FIRST_ROWS;
let clockOffset = 0; // of the agent's clock from ours, which ages are counted by
let lostAt = null;
let heardAt = Date.now();
let drawTimer = 0;
let unseenTimer = 0;
let lastEventId = '';

const now = () => Date.now() + clockOffset;
const pathOf = (name) => `/v1/services/${encodeURIComponent(name)}`;

/** Of the service that is followed the stream knows more than the list that is asked for now and then. */
function ownCounts(one) {
  if (!model.complete) return one;
  return {...one, instances: model.instances.size, data_centers: [...model.centres.values()]};
}

function draw() {
  drawTimer = 0;
  const time = now();
  const {counts, found} = model.select(filter.value, onlyProblems.checked, time);
  view.showServices(services.map((one) => (one.service === service ? ownCounts(one) : one)), service, (name) => `#${new URLSearchParams({...place(), service: name})}`);
  view.showFigures(service, model, counts);
  view.showFlow(model, time);
  view.showCentres(model, counts.perCentre, time, Boolean(lostAt));
  view.showInstances(model, found, cap, time);
  view.showLink(lostAt, time);
  return found.length;
}

function drawSoon() {
  drawTimer ||= setTimeout(draw, DRAW_MS);
}

/** What is looked at stands in the address, so that it can be kept and handed on. */
function place() {
  return Object.fromEntries(new URLSearchParams(location.hash.slice(1)));
}

function keepPlace() {
  const wanted = {...place(), service, filter: filter.value, problems: onlyProblems.checked ? '1' : ''};
  const entries = Object.entries(wanted).filter(([, value]) => value);
  history.replaceState(null, '', `#${new URLSearchParams(Object.fromEntries(entries))}`);
}

function heard() {
  heardAt = Date.now();
  if (lostAt === 0) return;
  lostAt = 0;
  draw();
}

function lost() {
  if (lostAt) return;
  lostAt = Date.now();
  draw();
}

function follow(name) {
  stream?.close();
  if (name !== service) {
    model = new Model();
    lastEventId = '';
    cap = FIRST_ROWS;
  }
  service = name;
  if (!name) return;
  document.getElementById('json').href = `${pathOf(name)}/instances`;
  document.getElementById('json').textContent = `${pathOf(name)}/instances`;
  const resume = lastEventId && `?last_event_id=${encodeURIComponent(lastEventId)}`;
  const source = stream = new EventSource(`${pathOf(name)}/events${resume}`);
  const known = model;
  const on = (type, take) => source.addEventListener(type, (event) => {
    heard();
    lastEventId = event.lastEventId || lastEventId;
    take?.(JSON.parse(event.data));
    drawSoon();
  });
  on('reset', () => known.reset());
  on('added', (data) => known.put(data, now()));
  on('modified', (data) => known.put(data, now()));
  on('removed', (data) => known.remove(data, now()));
  on('state', (data) => known.state(data));
  on('data_center_removed', (data) => known.removeCentre(data.data_center));
  on('synced', () => known.synced(now()));
  on('resumed', () => known.resumed());
  on('heartbeat');
  source.onopen = heard;
  source.onerror = () => {
    lost();
    // A browser tries again by itself unless it was refused.
    if (source.readyState === EventSource.CLOSED) setTimeout(() => source === stream && loadServices(true), RETRY_MS);
  };
}

/** The services there are; `restart` begins the stream anew, of another service where ours is no longer followed. */
async function loadServices(restart) {
  try {
    const answer = await fetch('/v1/services', {cache: 'no-store', signal: AbortSignal.timeout(ANSWER_MS)});
    if (!answer.ok) throw new Error(answer.statusText);
    clockOffset = (Date.parse(answer.headers.get('Date')) || Date.now()) - Date.now();
    services = (await answer.json()).services;
  } catch {
    lost();
    if (restart) setTimeout(() => loadServices(true), RETRY_MS);
    return;
  }
  const isFollowed = (name) => services.some((one) => one.service === name);
  const wanted = place().service;
  const next = [wanted, service].find(isFollowed) ?? services[0]?.service ?? '';
  if (restart || next !== service) follow(next);
  if (!next) heard();
  if (stream?.readyState === EventSource.OPEN) lostAt = 0;
  drawSoon();
}

function restorePlace() {
  const wanted = place();
  filter.value = wanted.filter ?? '';
  onlyProblems.checked = wanted.problems === '1';
}

filter.addEventListener('input', () => {
  cap = FIRST_ROWS;
  keepPlace();
  view.say(`${draw()} fit the filter`);
});
onlyProblems.addEventListener('change', () => {
  keepPlace();
  view.say(`${draw()} shown`);
});
document.getElementById('more').addEventListener('click', () => {
  cap += MORE_ROWS;
  draw();
});
document.addEventListener('keydown', (event) => {
  if (event.key === '/' && document.activeElement !== filter && !event.ctrlKey && !event.metaKey) {
    event.preventDefault();
    filter.focus();
  } else if (event.key === 'Escape' && document.activeElement === filter) {
    filter.value = '';
    filter.dispatchEvent(new Event('input'));
  }
});
window.addEventListener('hashchange', () => {
  restorePlace();
  loadServices(false);
});
setInterval(() => {
  if (stream && !document.hidden && Date.now() - heardAt > SILENCE_MS) {
    lost();
    if (stream.readyState === EventSource.OPEN) follow(service); // nothing tells of a peer that is gone
  }
  if (!document.hidden) draw(); // ages
}, 1000);
document.addEventListener('visibilitychange', () => {
  clearTimeout(unseenTimer);
  if (document.hidden) {
    unseenTimer = setTimeout(() => {
      stream?.close();
      stream = null;
    }, UNSEEN_MS);
  } else if (!stream) {
    heardAt = Date.now();
    loadServices(true);
  } else {
    draw();
  }
});
setInterval(() => document.hidden || loadServices(false), SERVICES_MS);

restorePlace();
loadServices(true);
