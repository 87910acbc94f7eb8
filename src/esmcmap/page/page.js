// The page: puts its parts together, and says in a line, in colour and in words what must not be missed. `live` is the network as it
// is; `shown` is what the parts show, which is another one while the operator looks back.
import { GROUPS, age, button, byId, clockText, count, html, setAttribute, setText, stateText } from './words.js';
import { Changes } from './changes.js';
import { Drawing } from './drawing.js';
import { Live } from './live.js';
import { Network } from './network.js';
import { Panel, claimText } from './panel.js';
import { sample } from './shapes.js';
import { Table } from './table.js';
import { Timeline } from './timeline.js';

const TITLE = 'Synchronisation map';
let live = null, shown = null, chosen = null, lostSince = null, crowded = false;

const drawing = new Drawing(byId('network'), choose);
const table = new Table(byId('table'), choose);
const panel = new Panel(byId('panel'), choose);
const timeline = new Timeline({ past: showPast, live: showLive, missing: say });
const changes = new Changes(choose, (seq) => timeline.go(seq));

// --- what is shown

function show(network, calm) {
    shown = network;
    drawing.show(network, calm);
    table.show(network);
    panel.show(network, chosen);
    search();
    showAlarms();
    const past = network !== live;
    document.body.classList.toggle('past', past);
    byId('past').hidden = !past;
    setText(byId('past'), past ? `The network as it was at ${clockText(network.t)}.` : '');
    byId('empty').hidden = network.nodes.size > 0;
    setText(byId('empty'), 'No switch is known yet.');
    timeline.showTime(network.t);
}

function showPast(state) {
    show(new Network(state, shown ?? live), true);
}

function showLive() {
    if (live && shown !== live) show(live, true);
}

function choose(id) {
    chosen = id;
    if (shown) panel.show(shown, id);
    drawing.chosen(id);
    table.chosen(id);
    changes.chosen(id);
}

// --- what the server tells

new Live({
    state(state) {
        connected(false);
        begin(state);
    },
    polled(state) {
        connected(true);
        if (state.seq !== live?.seq) begin(state);
    },
    change(event) {
        const past = shown !== live;
        const told = summaryOfAlarms(live);
        live.change(event);
        timeline.add(event, live.silent());
        changes.add(event.changes);
        if (!past) show(live);
        report(told, event.changes);
    },
    tick({ t }) {
        live.t = t;
        if (shown !== live) return;
        drawing.tick(t);
        table.tick(t);
        panel.show(live, chosen);
        timeline.showTime(t);
    },
    lost() {
        lostSince ??= Date.now();
        showConnection();
    },
});

function begin(state) {
    const past = shown && shown !== live;
    const told = summaryOfAlarms(live);
    live = new Network(state, live);
    if (!past) show(live);
    timeline.begin(state, live.silent());
    changes.begin();
    report(told);
}

function connected(asOneTooMany) {
    lostSince = null;
    crowded = asOneTooMany;
    showConnection();
}

function showConnection() {
    const [state, words] = lostSince ? ['lost', 'connection lost'] : crowded ? ['crowded', 'too many viewers'] : ['live', 'connected'];
    setAttribute(byId('connection'), 'data-state', state);
    setText(byId('connection'), words);
    byId('lost').hidden = state === 'live';
    if (state === 'crowded') setText(byId('lost'), 'The server has as many live viewers as it takes. This page asks it again every few seconds.');
    if (lostSince) {
        const since = live ? ` What is shown is as of ${clockText(live.t)}.` : '';
        setText(byId('lost'), `No connection to the server for ${age(Date.now() - lostSince)}.${since} Trying again.`);
    }
    document.body.classList.toggle('lost', Boolean(lostSince));
    showTitle();
}

// --- what must not be missed

function alarmsOf(network) {
    const ring = (loop) => [...loop, loop[0]].join(' ← ');
    const silent = network.switches().filter((node) => node.answer === 'silent' || node.answer === 'garbage');
    return [
        ...network.loops.map((loop) => ({ kind: 'loop', text: `Loop: ${ring(loop)}`, id: loop[0] })),
        ...network.islands.map(({ root, state, switches }) => ({
            kind: 'island', id: root,
            text: `Island: ${root} in ${stateText(state)}${switches.length > 1 ? `, followed by ${switches.filter((id) => id !== root).join(', ')}` : ''}`,
        })),
        ...network.claims.map((claim) => ({ kind: 'claim', text: `${claim.switch} ${claimText(claim)}`, id: claim.switch })),
        ...silent.map((node) => ({ kind: 'silent', text: `${node.id} ${node.answer === 'garbage' ? 'says what cannot be read' : 'does not answer'}`, id: node.id })),
        ...network.problems.map((text) => ({ kind: 'problem', text, id: null })),
    ];
}

function summaryOfAlarms(network) {
    return network ? alarmsOf(network).map((alarm) => alarm.text) : [];
}

function showAlarms() {
    const alarms = alarmsOf(shown), list = byId('alarms'), key = JSON.stringify(alarms);
    if (list.key !== key) {
        list.key = key;
        list.replaceChildren(...alarms.map(({ kind, text, id }) => html('li', { 'data-kind': kind }, id === null ? text : button(text, () => choose(id)))));
    }
    const switches = shown.switches(), of = (state) => switches.filter((node) => node.state === state).length;
    const states = ['master', 'lock', 'holdover', 'freerun', 'off', 'unknown'].filter(of).map((state) => `${of(state)} ${stateText(state)}`);
    setText(byId('summary'), `${count(switches.length, 'switch', 'switches')}${states.length ? `: ${states.join(', ')}` : ''}`);
    showTitle();
}

// Reads out which alarms came and went; other changes only when there are few of them.
function report(before, list = []) {
    const now = summaryOfAlarms(live);
    showTitle();
    const came = now.filter((text) => !before.includes(text)), went = before.filter((text) => !now.includes(text));
    if (came.length) setText(byId('warned'), came.join('. '));
    if (went.length) say(`Over: ${went.join('. ')}`);
    else if (list.length > 3) say(`${list.length} changes.`);
    else if (list.length) say(list.map((change) => `${change.switch ?? ''} ${change.text}`).join('. '));
    if (!now.length) setText(byId('warned'), '');
}

function say(text) {
    setText(byId('said'), text);
}

// The worst that there is, for the title. "ok" is what every switch has to say.
function markOf(network) {
    const worst = alarmsOf(network)[0]?.kind;
    if (worst) return worst === 'loop' ? 'LOOP' : worst;
    return network.switches().some((node) => node.answer !== 'ok') ? 'waiting' : 'ok';
}

function showTitle() {
    const mark = lostSince ? 'no connection' : live ? markOf(live) : '';
    const colour = { LOOP: '%23c8202f', ok: '%230a7d55', '': '%23777', waiting: '%23777', 'no connection': '%23777' }[mark] ?? '%23c27800';
    const title = [mark, TITLE].filter(Boolean).join(' · ');
    if (document.title === title) return;
    document.title = title;
    const shape = mark === 'ok' ? "<path d='M4 8.5l3 3 5-6'/>" : mark === 'LOOP' ? "<circle cx='8' cy='8' r='3.5'/>" : "<path d='M8 3.5v5M8 11v1.5'/>";
    document.querySelector('link[rel=icon]').href = "data:image/svg+xml,<svg xmlns='http://www.w3.org/2000/svg' viewBox='0 0 16 16'>" +
        `<rect width='16' height='16' rx='4' fill='${colour}'/><g fill='none' stroke='white' stroke-width='2'>${shape}</g></svg>`;
}

// --- search, views, theme, legend

function search() {
    const words = byId('search').value, found = words.trim() ? shown.find(words) : null;
    drawing.found(found);
    table.found(found);
    setText(byId('found'), found ? `${found.length} of ${shown.nodes.size}` : '');
    return found ?? [];
}

byId('search').addEventListener('input', () => shown && search());
byId('searching').addEventListener('submit', (event) => {
    event.preventDefault();
    const found = shown ? search() : [];
    if (found.length) choose(found[(found.indexOf(chosen) + 1) % found.length]);
});

function view(name) {
    document.body.dataset.view = name;
    for (const other of ['drawing', 'table']) {
        byId(other).hidden = other !== name;
        setAttribute(byId(`view-${other}`), 'aria-pressed', String(other === name));
    }
    keep('view', name);
}

function kept(name) {
    try { return localStorage.getItem(`esmcmap.${name}`); } catch { return null; }
}

function keep(name, value) {
    try { localStorage.setItem(`esmcmap.${name}`, value); } catch { /* a browser that keeps nothing asks again next time */ }
}

function theme(name) {
    document.documentElement.dataset.theme = name;
    byId('theme').value = name;
    keep('theme', name);
}

for (const name of ['drawing', 'table']) byId(`view-${name}`).addEventListener('click', () => view(name));
byId('theme').addEventListener('change', () => theme(byId('theme').value));
byId('zoom-in').addEventListener('click', () => drawing.view.zoom(1.25));
byId('zoom-out').addEventListener('click', () => drawing.view.zoom(0.8));
byId('zoom-fit').addEventListener('click', () => drawing.view.fit());

byId('legend-qualities').append(...GROUPS.map(({ group, text, levels }) =>
    html('li', {}, sample('switch', { quality: levels[0] }), text)));
byId('legend-shapes').append(...[
    ['master', sample('switch', { state: 'master' })],
    ['follows a master', sample('switch', {})],
    ['holdover', sample('switch', { state: 'holdover', quality: 'eec1' })],
    ['free-running', sample('switch', { state: 'freerun', quality: 'eec1' })],
    ['stranger', sample('stranger', { state: 'unknown', quality: 'none' }, '?')],
    ['does not answer', sample('switch', { answer: 'silent', answered: 1 }, '( )')],
    ['false claim', sample('switch', { claim: true })],
    ['in a loop', sample('switch', { loop: true })],
    ['way of the clock', sample('link', { 'data-clock': 'ab', 'data-quality': 'primary', 'data-up': 'true' })],
    ['clock of an island', sample('link', { 'data-clock': 'ab', 'data-quality': 'equipment', 'data-up': 'true', 'data-island': '' })],
    ['no clock taken', sample('link', { 'data-up': 'true' })],
    ['link down', sample('link', { 'data-up': 'false' })],
].map(([text, picture]) => html('li', {}, picture, text)));

theme(['light', 'dark'].includes(kept('theme')) ? kept('theme') : 'auto');
view(kept('view') === 'table' ? 'table' : 'drawing');
choose(null);
setInterval(() => lostSince && showConnection(), 1000);
