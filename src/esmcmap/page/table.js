// All switches as a table that can be sorted by each column. A row is written anew only when its switch differs.
import { answerText, button, html, marks, qualityGroup, qualityRank, qualityText, setAttribute, setText, stateText } from './words.js';

const ORDER = ['master', 'lock', 'holdover', 'freerun', 'unknown', 'off'];
const compareText = new Intl.Collator(undefined, { numeric: true }).compare;

// Title, text of a cell, and what it is sorted by when that is not the text.
const COLUMNS = [
    { title: 'Switch', text: (node) => node.id },
    { title: 'State', text: (node) => (node.kind === 'stranger' ? 'stranger' : stateText(node.state)), key: (node) => (node.kind === 'stranger' ? 9 : ORDER.indexOf(node.state)) },
    { title: 'Quality', text: (node) => (node.kind === 'stranger' ? '' : qualityText(node.quality)), key: (node) => qualityRank(node.quality) },
    { title: 'Follows', text: (node) => node.follows ?? '' },
    { title: 'Source', text: (node) => node.source ?? '' },
    { title: 'Master', text: (node) => node.root ?? '' },
    { title: 'Hops', text: (node) => (node.hops === null ? '' : String(node.hops)), key: (node) => node.hops ?? 999 },
    { title: 'Marks', text: (node) => marks(node).join(', '), key: (node) => -marks(node).length },
    { title: 'Answer', text: (node, now) => answerText(node, now) || (node.kind === 'stranger' ? 'not asked' : 'ok') },
    { title: 'Clock id', text: (node) => node.clock_id ?? '' },
    { title: 'No source because', text: (node) => node.reason ?? '' },
];
const ANSWER = COLUMNS.findIndex(({ title }) => title === 'Answer');  // the one that changes by itself, by its age

export class Table {
    constructor(section, choose) {
        Object.assign(this, { section, choose, rows: new Map(), column: 0, down: false });
        this.heads = COLUMNS.map(({ title }, i) => html('th', { scope: 'col' }, button(title, () => this.sortBy(i))));
        this.body = html('tbody');
        section.append(html('table', {}, html('caption', { class: 'unseen' }, 'All switches and strangers; the buttons of the head sort'), html('thead', {}, html('tr', {}, ...this.heads)), this.body));
        this.body.addEventListener('click', (event) => event.target.closest('tr') && choose(event.target.closest('tr').dataset.id));
        this.markHeads();
    }

    show(network) {
        this.network = network;
        for (const [id, row] of this.rows) {
            if (network.nodes.has(id)) continue;
            row.element.remove();
            this.rows.delete(id);
        }
        let changed = false;
        for (const node of network.nodes.values()) changed = this.showRow(node) || changed;
        if (changed) this.sort();
    }

    showRow(node) {
        let row = this.rows.get(node.id);
        if (row?.node === node) return false;
        if (!row) this.rows.set(node.id, row = this.newRow());
        row.node = node;
        setAttribute(row.element, 'data-id', node.id);
        for (const mark of ['loop', 'island', 'claim']) setAttribute(row.element, `data-${mark}`, node[mark]);
        setAttribute(row.element, 'data-answer', node.answer);
        setAttribute(row.quality, 'data-quality', node.kind === 'stranger' ? null : qualityGroup(node.quality));
        row.cells.forEach((cell, i) => setText(cell, COLUMNS[i].text(node, this.network.t)));
        return true;
    }

    newRow() {
        const cells = COLUMNS.map(() => html('td'));
        const name = button('', () => {}, { class: 'name-button' });
        const quality = html('span', { class: 'quality' });
        cells[2].append(quality);
        const element = html('tr', {}, html('th', { scope: 'row' }, name), ...cells.slice(1));
        return { element, quality, cells: [name, cells[1], quality, ...cells.slice(3)] };
    }

    tick(now) {
        for (const row of this.rows.values()) if (row.node.answer !== 'ok') setText(row.cells[ANSWER], COLUMNS[ANSWER].text(row.node, now));
    }

    sortBy(column) {
        this.down = column === this.column && !this.down;
        this.column = column;
        this.markHeads();
        this.sort();
    }

    markHeads() {
        this.heads.forEach((head, i) => setAttribute(head, 'aria-sort', i === this.column ? (this.down ? 'descending' : 'ascending') : null));
    }

    // Rows that are in their place already are not moved.
    sort() {
        const { text, key } = COLUMNS[this.column], sign = this.down ? -1 : 1;
        const compare = (a, b) => sign * (key ? key(a.node) - key(b.node) : compareText(text(a.node, 0), text(b.node, 0))) || compareText(a.node.id, b.node.id);
        let place = this.body.firstElementChild;
        for (const { element } of [...this.rows.values()].sort(compare)) {
            if (element === place) place = place.nextElementSibling;
            else this.body.insertBefore(element, place);
        }
    }

    chosen(id) {
        for (const [other, { element }] of this.rows) setAttribute(element, 'aria-current', other === id ? 'true' : null);
        this.rows.get(id)?.element.scrollIntoView({ block: 'nearest' });
    }

    // Only the switches found are listed; all of them for null.
    found(ids) {
        const found = ids && new Set(ids);
        for (const [id, { element }] of this.rows) element.hidden = Boolean(found) && !found.has(id);
    }
}
