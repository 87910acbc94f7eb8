// One switch and one link as they are drawn. What differs between two states is written to attributes that page.css turns into
// colour, dashes and outlines; each of them stands in the text or the shape as well. Positions are those of the drawing's plane.
import { answerText, cut, describe, qualityGroup, qualityText, setAttribute, setText, stateText, svg } from './words.js';

export const RADIUS = 21;
export const LONGEST = 18;  // letters of a name that are drawn
const SHORT = 8;  // a name up to that length stands best right above or below

const CIRCLE = 'M-21 0a21 21 0 1 1 42 0a21 21 0 1 1 -42 0z';
const SQUARE = 'M-15 -20h30a5 5 0 0 1 5 5v30a5 5 0 0 1 -5 5h-30a5 5 0 0 1 -5 -5v-30a5 5 0 0 1 5 -5z';
const DIAMOND = 'M0 -24L24 0L0 24L-24 0z';
const TRIANGLE = 'M0 -9L9 7H-9z';
const ARROW = 'M-7 -7.5L9 0L-7 7.5L-4 0z';

export function outlineOf(kind, state) {
    if (kind === 'stranger') return DIAMOND;
    return state === 'master' ? SQUARE : CIRCLE;
}

export class NodeShape {
    constructor() {
        this.title = svg('title');
        this.outline = svg('path', { class: 'outline' });
        this.inner = svg('path', { class: 'inner', d: SQUARE, transform: 'scale(0.84)' });
        this.level = svg('text', { class: 'level', y: 4 });
        this.name = svg('text', { class: 'name' });
        this.note = svg('text', { class: 'note' });
        this.badge = svg('g', { class: 'badge', transform: 'translate(18 -18)' }, svg('path', { d: TRIANGLE }), svg('text', { y: 5 }, '!'));
        this.element = svg('g', { class: 'node', role: 'button', tabindex: -1 }, this.title,
            svg('circle', { class: 'halo', r: 28 }), this.outline, this.inner, this.level, this.name, this.note, this.badge);
    }

    show(node, now) {
        this.node = node;
        const { element } = this;
        setAttribute(element, 'data-id', node.id);
        setAttribute(element, 'data-kind', node.kind);
        setAttribute(element, 'data-state', node.state);
        setAttribute(element, 'data-answer', node.answer);
        setAttribute(element, 'data-quality', qualityGroup(node.quality));
        for (const mark of ['loop', 'island', 'claim']) setAttribute(element, `data-${mark}`, node[mark]);
        setAttribute(this.outline, 'd', outlineOf(node.kind, node.state));
        setText(this.level, this.levelText(node));
        const letters = this.level.textContent.length;
        setAttribute(this.level, 'data-size', letters > 6 ? 'small' : letters > 4 ? 'less' : null);
        setText(this.name, cut(node.id, LONGEST));
        this.showAge(now);
    }

    // What is only remembered of a switch that says nothing now stands in brackets.
    levelText(node) {
        if (node.kind === 'stranger') return '?';
        if (node.answer === 'waiting') return '…';
        const text = node.state === 'off' ? 'off' : cut(qualityText(node.quality), 7);
        return node.answer === 'ok' ? text : `(${text})`;
    }

    showAge(now) {
        const { node } = this, sentence = describe(node, now);
        setText(this.note, noteOf(node, now));
        setText(this.title, sentence);
        setAttribute(this.element, 'aria-label', sentence);
    }

    place(x, y) {
        setAttribute(this.element, 'transform', `translate(${x.toFixed(1)} ${y.toFixed(1)})`);
    }

    // Puts the name where there is most room, and of several such sides to the one that faces outward. `links`, `close`: the
    // angles at which links and close neighbours lie; a name beside the shape would run into the latter.
    makeRoom(links, close, outward) {
        const nearest = (angles, side) => Math.min(Math.PI / 2.5, ...angles.map((angle) => Math.abs(turn(angle - side))));
        const room = ({ angle, beside, slanting }) => nearest([...links, ...close], angle) + 0.2 * Math.cos(outward - angle) -
            (beside && nearest(close, angle) < 0.8 ? 1 : 0) - (slanting && this.node.id.length <= SHORT ? 0.1 : 0);
        setAttribute(this.element, 'data-side', SIDES.reduce((best, side) => (room(side) > room(best) + 0.1 ? side : best)).name);
    }
}

const SIDES = [
    { name: 'below', angle: Math.PI / 2 }, { name: 'above', angle: -Math.PI / 2 },
    { name: 'right', angle: 0, beside: true }, { name: 'left', angle: Math.PI, beside: true },
    { name: 'below-right', angle: Math.PI / 4, slanting: true }, { name: 'below-left', angle: (3 * Math.PI) / 4, slanting: true },
    { name: 'above-right', angle: -Math.PI / 4, slanting: true }, { name: 'above-left', angle: (-3 * Math.PI) / 4, slanting: true },
];

function turn(angle) {
    return Math.atan2(Math.sin(angle), Math.cos(angle));
}

function noteOf(node, now) {
    if (node.kind === 'stranger') return 'stranger';
    const notes = [answerText(node, now)];
    if (node.loop) notes.push('loop');
    else if (node.state === 'lock' && node.hops) notes.push(`${node.hops} ${node.hops === 1 ? 'hop' : 'hops'}`);
    else if (node.state !== 'off' && !(node.state === 'unknown' && node.answer !== 'ok')) notes.push(stateText(node.state));
    if (node.claim) notes.push('false claim');
    return notes.filter(Boolean).join(', ');
}

export class LinkShape {
    constructor() {
        this.title = svg('title');
        this.touch = svg('path', { class: 'touch' });
        this.line = svg('path', { class: 'line' });
        this.arrow = svg('path', { class: 'arrow', d: ARROW });
        this.cross = svg('path', { class: 'cross', d: 'M-5 -5L5 5M-5 5L5 -5' });
        this.element = svg('g', { class: 'link' }, this.title, this.touch, this.line, this.cross, this.arrow);
    }

    // `island`: whether the clock that goes along it comes from no master.
    show(link, island) {
        this.link = link;
        const { element } = this;
        setAttribute(element, 'data-id', link.id);
        setAttribute(element, 'data-clock', link.clock);
        setAttribute(element, 'data-quality', link.clock ? qualityGroup(link.quality) : null);
        setAttribute(element, 'data-up', String(link.up));
        setAttribute(element, 'data-loop', link.loop);
        setAttribute(element, 'data-island', island);
        setText(this.title, linkText(link));
    }

    // Two links between the same switches bend apart; `bend` is how far their middles are from the straight line.
    place(a, b, bend) {
        const length = Math.max(1, Math.hypot(b.x - a.x, b.y - a.y));
        const ux = (b.x - a.x) / length, uy = (b.y - a.y) / length;
        const gap = Math.min(RADIUS + 4, length / 3);
        const from = { x: a.x + ux * gap, y: a.y + uy * gap }, to = { x: b.x - ux * gap, y: b.y - uy * gap };
        const cx = (a.x + b.x) / 2 - uy * bend * 2, cy = (a.y + b.y) / 2 + ux * bend * 2;
        const d = `M${spot(from)}Q${cx.toFixed(1)} ${cy.toFixed(1)} ${spot(to)}`;
        setAttribute(this.line, 'd', d);
        setAttribute(this.touch, 'd', d);
        const middle = { x: (from.x + 2 * cx + to.x) / 4, y: (from.y + 2 * cy + to.y) / 4 };
        const angle = (Math.atan2(uy, ux) * 180) / Math.PI + (this.link.clock === 'ba' ? 180 : 0);
        setAttribute(this.arrow, 'transform', `translate(${spot(middle)}) rotate(${angle.toFixed(1)})`);
        setAttribute(this.cross, 'transform', `translate(${spot(middle)}) rotate(${angle.toFixed(1)})`);
    }
}

function spot(point) {
    return `${point.x.toFixed(1)} ${point.y.toFixed(1)}`;
}

export function linkText(link) {
    const a = `${link.a} ${link.a_port ?? ''}`.trim(), b = `${link.b} ${link.b_port ?? ''}`.trim();
    if (!link.up) return `${a} and ${b}: down`;
    if (!link.clock) return `${a} and ${b}: no clock taken, best heard ${qualityText(link.quality)}`;
    const [from, to] = link.clock === 'ab' ? [a, b] : [b, a];
    return `clock from ${from} to ${to}, ${qualityText(link.quality)}${link.loop ? ', in a loop' : ''}`;
}

// The same shapes, small, for the legend.
export function sample(kind, attributes, text = '') {
    const picture = svg('svg', { viewBox: '-30 -30 60 60', class: 'sample', 'aria-hidden': 'true' });
    if (kind === 'link') {
        picture.append(svg('g', { ...attributes, class: 'link' }, svg('path', { class: 'line', d: 'M-28 0H28' }),
            svg('path', { class: 'cross', d: 'M-5 -5L5 5M-5 5L5 -5' }), svg('path', { class: 'arrow', d: ARROW })));
        return picture;
    }
    const shape = new NodeShape();
    const node = { id: '', kind, state: 'lock', answer: 'ok', quality: 'prc', ports: [], ...attributes };
    shape.show(node, 0);
    setText(shape.level, text);
    for (const part of [shape.title, shape.name, shape.note]) part.remove();
    for (const name of ['role', 'tabindex', 'aria-label', 'data-id']) shape.element.removeAttribute(name);
    picture.append(shape.element);
    return picture;
}
