// The drawing of the network. Each switch and link has its shape for as long as it exists; a new state touches those that differ
// and nothing else, and what moves glides to its place. Which switch is chosen, found or has the focus stands in classes beside.
import { LONGEST, LinkShape, NodeShape, RADIUS } from './shapes.js';
import { setAttribute, stateText, svg } from './words.js';
import { View } from './view.js';

const GLIDE_MS = 400;
const MOST_GLOWING = 40;
const MARGIN = 75, MARGIN_BESIDE = 100, LETTER = 8;  // room for names at the edges
const BEND = 13;
const CLOSE = 130;  // a switch nearer than that is in the way of a name
const still = matchMedia('(prefers-reduced-motion: reduce)');

export class Drawing {
    // `choose(id or null)`: called when the operator chooses a switch.
    constructor(frame, choose) {
        Object.assign(this, { frame, choose, nodes: new Map(), links: new Map(), at: new Map(), moving: new Map() });
        this.layers = Object.fromEntries(['islands', 'links', 'nodes', 'labels'].map((name) => [name, svg('g', { class: name })]));
        this.world = svg('g', {}, ...Object.values(this.layers));
        frame.append(this.world);
        this.view = new View(frame, this.world);
        frame.addEventListener('click', (event) => this.click(event));
        frame.addEventListener('dblclick', (event) => event.target === frame && this.view.fit());
        frame.addEventListener('keydown', (event) => this.key(event));
        // On the section: an SVG element that listens for the focus would be a stop of the Tab key itself.
        frame.parentElement.addEventListener('focusin', (event) => this.focused(event.target.closest('.node')));
    }

    // `calm`: nothing is to glide or to glow, as when another recorded state is shown at once.
    show(network, calm = false) {
        const first = this.nodes.size === 0;
        this.network = network;
        this.calm = calm || first || still.matches;
        const moved = this.showNodes();
        const bent = this.showLinks();
        for (const shape of this.links.values()) {
            if (bent.has(shape) || moved.has(shape.link.a) || moved.has(shape.link.b)) this.placeLink(shape);
        }
        if (moved.size || bent.size) this.placeNames();
        this.showIslands();
        this.lightPath();
        if (moved.size) this.view.refit(this.bounds());
        this.keepStop();
    }

    showNodes() {
        const moved = new Set(), changed = [];
        for (const [id, shape] of this.nodes) if (!this.network.nodes.has(id)) this.drop(id, shape);
        for (const [id, node] of this.network.nodes) {
            let shape = this.nodes.get(id);
            if (!shape) this.nodes.set(id, shape = this.enter(new NodeShape(), this.layers.nodes));
            if (shape.node === node) continue;
            if (shape.node) changed.push(shape.element);
            shape.show(node, this.network.t);
            if (this.go(id, shape, node)) moved.add(id);
        }
        this.glow(changed);
        return moved;
    }

    drop(id, shape) {
        shape.element.remove();
        for (const map of [this.nodes, this.at, this.moving]) map.delete(id);
    }

    enter(shape, layer) {
        layer.append(shape.element);
        if (!this.calm) shape.element.classList.add('new');
        return shape;
    }

    // A short glow says where something has changed: not when it is everywhere, since each of its frames paints them all, nor on
    // a page that is hidden, where the frames would pile up.
    glow(changed) {
        const many = changed.length > MOST_GLOWING;
        this.frame.classList.toggle('many', many);
        if (many || this.calm || document.hidden || !changed.length) return;
        for (const element of changed) element.classList.remove('changed');
        requestAnimationFrame(() => changed.forEach((element) => element.classList.add('changed')));
    }

    showLinks() {
        const touched = new Set();
        for (const [id, shape] of this.links) {
            if (this.network.links.has(id)) continue;
            shape.element.remove();
            this.links.delete(id);
        }
        const bends = this.bends();
        for (const [id, link] of this.network.links) {
            if (!this.network.nodes.has(link.a) || !this.network.nodes.has(link.b)) continue;
            let shape = this.links.get(id);
            if (!shape) this.links.set(id, shape = this.enter(new LinkShape(), this.layers.links));
            const island = this.islandLink(link);
            if (shape.link === link && shape.bend === bends.get(id) && shape.island === island) continue;
            Object.assign(shape, { bend: bends.get(id), island });
            shape.show(link, island);
            touched.add(shape);
        }
        return touched;
    }

    islandLink(link) {
        const follower = link.clock === 'ab' ? link.b : link.a;
        return Boolean(link.clock) && !link.loop && this.network.nodes.get(follower).island;
    }

    // How far the links between the same two switches bend aside.
    bends() {
        const pairs = new Map(), bends = new Map();
        for (const link of this.network.links.values()) {
            const pair = JSON.stringify([link.a, link.b].sort());
            pairs.set(pair, [...(pairs.get(pair) ?? []), link]);
        }
        for (const links of pairs.values()) {
            links.forEach((link, i) => bends.set(link.id, (i - (links.length - 1) / 2) * BEND * (link.a < link.b ? 2 : -2)));
        }
        return bends;
    }

    placeLink(shape) {
        const a = this.at.get(shape.link.a), b = this.at.get(shape.link.b);
        if (a && b) shape.place(a, b, shape.bend);
    }

    // Depends on where switches and links are, not on which way the clock goes: a name stays where it is when that turns.
    placeNames() {
        const nodes = [...this.network.nodes.values()], angles = new Map(nodes.map((node) => [node.id, []]));
        const angle = (from, to) => Math.atan2(to.y - from.y, to.x - from.x);
        for (const { link } of this.links.values()) {
            const a = this.network.nodes.get(link.a), b = this.network.nodes.get(link.b);
            angles.get(a.id).push(angle(a, b));
            angles.get(b.id).push(angle(b, a));
        }
        const middle = { x: nodes.reduce((sum, node) => sum + node.x, 0) / nodes.length, y: nodes.reduce((sum, node) => sum + node.y, 0) / nodes.length };
        for (const node of nodes) {
            const close = nodes.filter((other) => other !== node && Math.hypot(other.x - node.x, other.y - node.y) < CLOSE);
            this.nodes.get(node.id).makeRoom(angles.get(node.id), close.map((other) => angle(node, other)), angle(middle, node));
        }
    }

    // --- movement

    // Sends a switch to its place; whether it was not there.
    go(id, shape, { x, y }) {
        const from = this.at.get(id);
        if (from && Math.hypot(from.x - x, from.y - y) < 0.05 && !this.moving.has(id)) return false;
        if (!from || this.calm) {
            this.moving.delete(id);
            this.at.set(id, { x, y });
            shape.place(x, y);
        } else {
            this.moving.set(id, { from, to: { x, y }, began: performance.now() });
            this.frameRequest ??= requestAnimationFrame((now) => this.glide(now));
        }
        return true;
    }

    glide(now) {
        this.frameRequest = null;
        const touched = new Set(this.moving.keys());
        for (const [id, { from, to, began }] of this.moving) {
            const part = Math.min(1, Math.max(0, (now - began) / GLIDE_MS)), eased = part * part * (3 - 2 * part);
            const at = { x: from.x + (to.x - from.x) * eased, y: from.y + (to.y - from.y) * eased };
            this.at.set(id, at);
            this.nodes.get(id).place(at.x, at.y);
            if (part === 1) this.moving.delete(id);
        }
        for (const shape of this.links.values()) if (touched.has(shape.link.a) || touched.has(shape.link.b)) this.placeLink(shape);
        this.showIslands();
        if (this.moving.size) this.frameRequest = requestAnimationFrame((later) => this.glide(later));
    }

    bounds() {
        const nodes = [...this.network.nodes.values()];
        if (!nodes.length) return null;
        const xs = nodes.map((node) => node.x), ys = nodes.map((node) => node.y);
        const beside = Math.max(MARGIN_BESIDE, 45 + LETTER * Math.min(LONGEST, Math.max(...nodes.map((node) => node.id.length))));
        return { left: Math.min(...xs) - beside, right: Math.max(...xs) + beside, top: Math.min(...ys) - MARGIN, bottom: Math.max(...ys) + MARGIN };
    }

    // An island is outlined along its switches and the links of its clock: a broad line, and a narrower one of the background's
    // colour upon it. Other switches that lie between stay outside.
    showIslands() {
        const shape = JSON.stringify(this.network.islands.map((island) => [island, island.switches.map((id) => this.at.get(id))]));
        if (shape === this.islandShape) return;
        this.islandShape = shape;
        const paths = this.network.islands.map((island) => this.islandPath(island.switches)).filter(Boolean);
        const labels = this.network.islands.map((island) => this.islandLabel(island)).filter(Boolean);
        this.layers.islands.replaceChildren(...paths.map((d) => svg('path', { class: 'edge', d })), ...paths.map((d) => svg('path', { class: 'area', d })));
        this.layers.labels.replaceChildren(...labels);
    }

    islandPath(ids) {
        const pieces = [];
        for (const id of ids) {
            const at = this.at.get(id), follows = this.network.nodes.get(id)?.follows;
            if (!at) continue;
            const to = ids.includes(follows) && this.at.get(follows);
            pieces.push(`M${at.x.toFixed(1)} ${at.y.toFixed(1)}${to ? `L${to.x.toFixed(1)} ${to.y.toFixed(1)}` : 'h0.1'}`);
        }
        return pieces.join('');
    }

    islandLabel({ root, state, switches }) {
        const top = [root, ...switches].filter((id) => this.at.has(id)).sort((a, b) => this.at.get(a).y - this.at.get(b).y)[0];
        if (top === undefined) return null;
        const { x, y } = this.at.get(top), above = this.nodes.get(top).element.dataset.side.startsWith('above') ? 34 : 0;
        return svg('text', { class: 'island-name', x: x.toFixed(1), y: (y - RADIUS - 24 - above).toFixed(1) }, `island: ${stateText(state)}`);
    }

    tick(now) {
        this.network.t = now;
        for (const shape of this.nodes.values()) if (shape.node.answer !== 'ok') shape.showAge(now);
    }

    // --- what the operator looks at

    chosen(id) {
        if (this.chosenId !== id && this.nodes.has(id)) {
            this.stop(id);
            const { x, y } = this.network.nodes.get(id);
            this.view.reveal(x, y);
        }
        this.chosenId = id;
        this.lightPath();
    }

    lightPath() {
        const path = this.nodes.has(this.chosenId) ? this.network.path(this.chosenId) : { ids: [], links: [] };
        const lit = new Set(path.ids), litLinks = new Set(path.links);
        this.frame.classList.toggle('lighting', lit.size > 0);
        for (const [id, { element }] of this.nodes) {
            element.classList.toggle('lit', lit.has(id));
            setAttribute(element, 'aria-pressed', String(id === this.chosenId));
        }
        for (const [id, { element }] of this.links) element.classList.toggle('lit', litLinks.has(id));
    }

    // Shows which switches a search has found; null when there is none.
    found(ids) {
        const found = new Set(ids ?? []);
        this.frame.classList.toggle('searching', ids !== null);
        for (const [id, { element }] of this.nodes) element.classList.toggle('found', found.has(id));
    }

    click(event) {
        if (this.view.dragged(event)) return;
        const node = event.target.closest('.node');
        this.choose(node ? node.dataset.id : null);
        node?.focus({ preventScroll: true });
    }

    // --- keyboard: one stop of the Tab key, arrow keys inside

    stop(id) {
        this.stopId = id;
        for (const [other, { element }] of this.nodes) setAttribute(element, 'tabindex', other === id ? 0 : -1);
    }

    keepStop() {
        if (!this.nodes.has(this.stopId)) this.stop(this.nodes.keys().next().value);
        else for (const [id, { element }] of this.nodes) setAttribute(element, 'tabindex', id === this.stopId ? 0 : -1);
    }

    focused(element) {
        if (!element) return;
        this.stop(element.dataset.id);
        const at = this.at.get(element.dataset.id);
        if (element.matches(':focus-visible')) this.view.reveal(at.x, at.y);
    }

    key(event) {
        if (event.ctrlKey || event.metaKey || event.altKey) return;
        const way = { ArrowLeft: [-1, 0], ArrowRight: [1, 0], ArrowUp: [0, -1], ArrowDown: [0, 1] }[event.key];
        const actions = {
            '+': () => this.view.zoom(1.25), '=': () => this.view.zoom(1.25), '-': () => this.view.zoom(0.8), 0: () => this.view.fit(),
            Enter: () => this.choose(this.stopId), ' ': () => this.choose(this.stopId), Escape: () => this.choose(null),
        };
        const action = way ? () => (event.shiftKey ? this.view.pan(-60 * way[0], -60 * way[1]) : this.step(way)) : actions[event.key];
        if (!action) return;
        event.preventDefault();
        action();
    }

    // To the nearest switch in that direction; what lies aside counts as further away.
    step([dx, dy]) {
        const from = this.at.get(this.stopId);
        let best = null, least = Infinity;
        for (const [id, to] of this.at) {
            const along = (to.x - from.x) * dx + (to.y - from.y) * dy, aside = Math.abs((to.x - from.x) * dy - (to.y - from.y) * dx);
            if (along > 1 && along + 2 * aside < least) [best, least] = [id, along + 2 * aside];
        }
        if (best !== null) this.nodes.get(best).element.focus();
    }
}
