// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// What is known of one service, as its stream tells it; nothing here touches the page.

export const BUCKET_MS = 5000;
export const BUCKETS = 120; // ten minutes
const NEW_MS = 60000;
const NEVER_READ = 'never synchronised';

const keyOf = (instance) => `${instance.data_center}/${instance.id}`;

/** Text to find an instance by: each word of the filter must be somewhere in it. */
function searchText(instance) {
  const ports = instance.ports.map((port) => `${port.name}=${port.port} :${port.port}`);
  const attributes = Object.entries(instance.attributes).map(([name, value]) => `${name}=${value}`);
  return [instance.data_center, instance.id, instance.host, instance.status, instance.version,
    instance.held ? 'held' : '', ...ports, ...attributes].join(' ').toLowerCase();
}

export class Model {
  constructor() {
    this.instances = new Map(); // by data centre and id: {data, text, since}; since: joined while we looked
    this.centres = new Map(); // name -> state
    this.complete = false; // all that the agent knows has been told once
    this.incoming = null; // what a reset has begun to tell; it takes the place of the above when it is complete
    this.buckets = []; // {at, joined, left}, oldest first
    this.begin = 0; // of the drawing: before it nothing is known
  }

  reset() {
    this.incoming = {instances: new Map(), centres: new Map()};
  }

  /** What a reset had begun to tell was cut short, and the stream goes on from before it. */
  resumed() {
    this.incoming = null;
  }

  /** Ends what a reset began: what differs from before has joined or left meanwhile. */
  synced(now) {
    if (!this.incoming) return;
    const before = this.instances;
    const {instances, centres} = this.incoming;
    this.incoming = null;
    if (this.complete) {
      for (const [key, entry] of instances) {
        entry.since = before.has(key) ? before.get(key).since : now;
        if (!before.has(key)) this.count(now, 'joined');
      }
      for (const key of before.keys()) if (!instances.has(key)) this.count(now, 'left');
    } else {
      this.begin = now;
    }
    this.instances = instances;
    this.centres = centres;
    this.complete = true;
  }

  put(data, now) {
    const known = this.incoming ? this.incoming.instances : this.instances;
    const key = keyOf(data);
    const before = known.get(key);
    // What a data centre's first list brings was there before.
    const {freshness = NEVER_READ} = this.centres.get(data.data_center) ?? {};
    const joined = !before && !this.incoming && freshness !== NEVER_READ;
    known.set(key, {key, data, text: searchText(data), since: joined ? now : before?.since ?? 0});
    if (joined) this.count(now, 'joined');
  }

  remove(data, now) {
    const known = this.incoming ? this.incoming.instances : this.instances;
    if (known.delete(keyOf(data)) && !this.incoming) this.count(now, 'left');
  }

  state(data) {
    (this.incoming ?? this).centres.set(data.data_center, data);
  }

  removeCentre(name) {
    (this.incoming ?? this).centres.delete(name);
  }

  count(now, what) {
    const at = Math.floor(now / BUCKET_MS);
    let last = this.buckets.at(-1);
    if (last?.at !== at) this.buckets.push(last = {at, joined: 0, left: 0});
    last[what] += 1;
    while (this.buckets[0].at <= at - BUCKETS) this.buckets.shift();
  }

  /** Those of the last ten minutes, and their sums. */
  history(now) {
    const first = Math.floor(now / BUCKET_MS) - BUCKETS;
    const buckets = this.buckets.filter((bucket) => bucket.at > first);
    const sum = (what) => buckets.reduce((total, bucket) => total + bucket[what], 0);
    return {first, buckets, joined: sum('joined'), left: sum('left')};
  }

  /** How much somebody should look at it: not well, held, only known from before, well. */
  severity({data}) {
    if (data.status !== 'ok') return 3;
    if (data.held) return 2;
    return this.centres.get(data.data_center)?.freshness === 'live' ? 0 : 1;
  }

  /** Counts, and the instances that fit the filter: problems first, then those that have just joined. */
  select(filter, onlyProblems, now) {
    const words = filter.toLowerCase().split(/\s+/).filter(Boolean);
    const counts = {problems: 0, live: 0, perCentre: new Map()};
    for (const state of this.centres.values()) if (state.freshness === 'live') counts.live += 1;
    const found = [];
    for (const entry of this.instances.values()) {
      const {data} = entry;
      const severity = this.severity(entry);
      const centre = counts.perCentre.get(data.data_center) ?? {instances: 0, held: 0};
      counts.perCentre.set(data.data_center, centre);
      centre.instances += 1;
      if (data.held) centre.held += 1;
      if (severity > 1) counts.problems += 1;
      if (onlyProblems && severity < 2) continue;
      if (!words.every((word) => entry.text.includes(word))) continue;
      found.push({entry, severity, isNew: now - entry.since < NEW_MS});
    }
    found.sort((a, b) => b.severity - a.severity || b.isNew - a.isNew ||
      (a.entry.key < b.entry.key ? -1 : 1));
    return {counts, found};
  }
}
