// The list of changes, newest first. A time leads to the state that it was recorded with, a name to its switch.
import { button, byId, cut, html, setText, setTime } from './words.js';
import { fetchJson } from './live.js';

const LISTED = 400;

export class Changes {
    // `choose(id)`, `go(seq)`: what a name and a time lead to.
    constructor(choose, go) {
        Object.assign(this, { choose, go, changes: [], only: null });
        this.list = byId('changes-list');
        byId('only-chosen').addEventListener('change', () => this.draw());
    }

    // All that the server keeps, and what its events have brought while it was asked.
    async begin() {
        this.changes = [];
        const answer = await fetchJson('changes');
        if (!answer) return;
        const newest = answer.changes.at(-1)?.seq ?? 0;
        this.changes = [...answer.changes, ...this.changes.filter((change) => change.seq > newest)];
        this.draw();
    }

    add(changes) {
        this.changes = [...this.changes, ...changes].slice(-1000);
        const items = changes.filter((change) => this.wanted(change)).map((change) => this.item(change));
        if (items.length) this.list.querySelector('.none')?.remove();
        this.list.prepend(...items.reverse());
        while (this.list.childElementCount > LISTED) this.list.lastElementChild.remove();
    }

    chosen(id) {
        this.only = id;
        byId('only').hidden = id === null;
        setText(byId('only-name'), `only ${cut(id ?? '', 16)}`);
        if (byId('only-chosen').checked) this.draw();
    }

    wanted(change) {
        return this.only === null || !byId('only-chosen').checked || change.switch === this.only;
    }

    draw() {
        const items = this.changes.filter((change) => this.wanted(change)).slice(-LISTED).map((change) => this.item(change));
        this.list.replaceChildren(...(items.length ? items.reverse() : [html('li', { class: 'none quiet' }, 'None yet.')]));
    }

    item(change) {
        const time = html('time');
        setTime(time, change.t);
        return html('li', { 'data-kind': change.kind },
            button(time, () => this.go(change.seq), { class: 'when', 'aria-label': `${time.textContent}, show this state` }),
            html('span', {}, change.switch ? button(change.switch, () => this.choose(change.switch), { class: 'name-button' }) : null, ' ', change.text));
    }
}
