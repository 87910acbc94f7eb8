// What is known of the chosen switch: its clock, its path to the master, its ports with the reason of each, and its neighbours.
// Built anew only when something of it differs.
import { answerText, button, count, describe, html, marks, qualityGroup, qualityText, setTime, stateText } from './words.js';
import { linkText } from './shapes.js';

export class Panel {
    // `choose(id or null)`: another switch, or none.
    constructor(section, choose) {
        Object.assign(this, { section, choose });
        section.addEventListener('keydown', (event) => event.key === 'Escape' && choose(null));
    }

    show(network, id) {
        const node = network.nodes.get(id);
        const content = JSON.stringify([id, node, node && [network.path(id), network.followers(id), network.linksOf(id), network.claims]]);
        if (content !== this.content) this.build(network, id, node);
        this.content = content;
        if (this.age) this.age.textContent = answerText(node, network.t);
    }

    build(network, id, node) {
        const focused = this.focusKey();
        this.age = null;
        if (!node) this.section.replaceChildren(...this.nothing(id));
        else this.section.replaceChildren(this.heading(node.id), ...(node.kind === 'stranger' ? this.stranger(network, node) : this.parts(network, node)));
        this.restoreFocus(focused);
    }

    // A rebuilt panel leaves the keyboard where it was.
    focusKey() {
        const inside = document.activeElement?.closest('#panel button');
        return inside && [...this.section.querySelectorAll('button')].indexOf(inside);
    }

    restoreFocus(place) {
        if (place === null || place === undefined) return;
        (this.section.querySelectorAll('button')[place] ?? this.section).focus();
    }

    nothing(id) {
        if (id === null) return [html('h2', { id: 'panel-name', class: 'quiet' }, 'No switch chosen'), html('p', { class: 'quiet' }, 'Choose one to see its clock, its ports and the way to its master.')];
        return [this.heading(id), html('p', { class: 'quiet' }, 'Not part of the network in this state.')];
    }

    heading(id) {
        const close = button('×', () => this.choose(null), { 'aria-label': 'Close', class: 'close' });
        return html('div', { class: 'heading' }, html('h2', { id: 'panel-name' }, id), close);
    }

    to(id) {
        return button(id, () => this.choose(id), { class: 'name-button' });
    }

    stranger(network, node) {
        return [html('p', {}, describe(node, network.t)), html('h3', {}, 'Links'), html('ul', {}, ...network.linksOf(node.id).map((link) => html('li', {}, linkText(link))))];
    }

    parts(network, node) {
        return [this.warnings(network, node), this.clock(network, node), ...this.path(network, node), ...this.neighbours(network, node), ...this.ports(node)].filter(Boolean);
    }

    warnings(network, node) {
        const list = html('ul', { class: 'warnings' });
        if (node.answer !== 'ok') {
            this.age = html('strong');
            list.append(html('li', {}, this.age, node.error ? `: ${node.error}` : '', html('br'), 'What follows is what was last known.'));
        }
        for (const mark of marks(node)) if (mark !== 'claims more than it has') list.append(html('li', {}, mark));
        for (const claim of network.claims.filter((entry) => entry.switch === node.id)) list.append(html('li', {}, claimText(claim)));
        return list.childElementCount ? list : null;
    }

    clock(network, node) {
        const rows = [
            ['State', stateText(node.state) + (node.dpll && node.dpll !== node.state ? `, DPLL ${node.dpll}` : '')],
            ['Quality', level(node.quality)],
            ['Clock id', node.clock_id],
            ['Source', node.source],
            ['Follows', node.follows && this.to(node.follows)],
            ['Clock from', node.root && (node.root === node.id ? 'itself' : html('span', {}, this.to(node.root), node.hops ? `, ${count(node.hops, 'hop')}` : ''))],
            ['No source', node.reason],
        ];
        if (node.answered) {
            const time = html('time');
            setTime(time, node.answered);
            rows.push(['Last answer', time]);
        }
        const list = html('dl');
        for (const [label, value] of rows) if (value) list.append(html('dt', {}, label), html('dd', {}, value));
        return list;
    }

    path(network, node) {
        if (!node.follows) return [];
        const { ids, circle } = network.path(node.id);
        const items = ids.map((id) => html('li', {}, this.to(id)));
        const last = network.nodes.get(ids.at(-1));
        const end = circle ? `and back to ${last.follows}: a loop` : stateText(last.state);
        const title = circle ? 'Its clock goes round' : last.state === 'master' ? 'Path to its master' : 'Where its clock comes from';
        return [html('h3', {}, title), html('ol', { class: 'path' }, ...items, html('li', {}, end))];
    }

    neighbours(network, node) {
        const followers = network.followers(node.id);
        if (!followers.length) return [];
        return [html('h3', {}, `Followed by ${count(followers.length, 'switch', 'switches')}`), html('ul', { class: 'path' }, ...followers.map((id) => html('li', {}, this.to(id))))];
    }

    ports(node) {
        if (!node.ports.length) return [html('p', { class: 'quiet' }, 'No port with SyncE enabled.')];
        const head = html('thead', {}, html('tr', {}, ...['Port', 'Neighbour', 'Received', 'Sent'].map((text) => html('th', { scope: 'col' }, text))));
        return [html('h3', {}, 'Ports'), html('table', { class: 'ports' }, head, html('tbody', {}, ...node.ports.flatMap((port) => this.port(port))))];
    }

    port(port) {
        const peer = port.peer ? html('span', {}, this.to(port.peer), port.peer_port ? ` ${port.peer_port}` : '') : port.neighbour ?? 'none heard';
        const row = html('tr', { 'data-source': port.source },
            html('th', { scope: 'row', title: port.address }, port.name), html('td', {}, peer), html('td', {}, level(port.received)), html('td', {}, level(port.sent)));
        const note = port.source ? 'source of the clock' : [port.link_up ? null : 'link down', port.reason].filter(Boolean).join(', ');
        return note ? [row, html('tr', { class: 'why', 'data-source': port.source }, html('td', { colspan: 4 }, note))] : [row];
    }
}

function level(token) {
    return token ? html('span', { class: 'quality', 'data-quality': qualityGroup(token) }, qualityText(token)) : 'none';
}

export function claimText({ says, has, why }) {
    return `says ${qualityText(says)}, has ${qualityText(has)}${why ? `: ${why}` : ''}`;
}
