// The recorded states: a slider through them, a strip above it that shows where loops, islands and silent switches were, and the
// way back to what is live. The states themselves stay with the server; the newest one wished for is fetched, others are passed over.
import { byId, clockText, count, setAttribute, setTime, svg } from './words.js';
import { fetchJson } from './live.js';

const MOST = 10000;  // as many as the server keeps
const NOT_KEPT = 'This state is not kept any more.';

export class Timeline {
    // `past(state)`: shows a recorded state; `live()`: back to what is now; `missing(why)`: the state can't be had.
    constructor(handlers) {
        Object.assign(this, { handlers, states: [], seq: null });
        this.slider = byId('slider');
        this.slider.addEventListener('input', () => this.at(Number(this.slider.value)));
        byId('earlier').addEventListener('click', () => this.step(-1));
        byId('later').addEventListener('click', () => this.step(1));
        byId('live').addEventListener('click', () => this.goLive());
    }

    // A connection has begun with this state. Its server may be another one than before, which counts anew.
    async begin(state, silent) {
        const seen = this.states[this.place()];
        this.states = [];
        this.add(state, silent);
        const history = await fetchJson('history');
        if (!history) return;
        const newest = history.states.at(-1)?.seq ?? -1;
        this.states = [...history.states, ...this.states.filter((later) => later.seq > newest)];
        if (this.seq !== null && !this.states.some(({ seq, t }) => seq === seen?.seq && t === seen?.t)) this.goLive(NOT_KEPT);
        this.draw();
    }

    add({ seq, t, loops, islands }, silent) {
        if (this.states.length && seq <= this.states.at(-1).seq) return;
        this.states.push({ seq, t, loops: loops.length, islands: islands.length, silent });
        if (this.states.length > MOST) this.states.shift();
        this.draw();
    }

    draw() {
        const last = Math.max(0, this.states.length - 1);
        setAttribute(this.slider, 'max', last);
        const place = this.place();
        this.slider.value = place;
        byId('earlier').disabled = place <= 0;
        byId('later').disabled = this.seq === null;
        setAttribute(byId('live'), 'aria-pressed', String(this.seq === null));
        const state = this.states[place];
        if (state) setAttribute(this.slider, 'aria-valuetext', this.seq === null ? 'live' : this.valueText(state));
        this.drawStrip();
    }

    valueText({ t, loops, islands, silent }) {
        return [clockText(t), loops && count(loops, 'loop'), islands && count(islands, 'island'), silent && `${silent} silent`].filter(Boolean).join(', ');
    }

    place() {
        if (this.seq === null) return this.states.length - 1;
        const place = this.states.findIndex((state) => state.seq >= this.seq);
        return place < 0 ? this.states.length - 1 : place;
    }

    // States that look alike are one bar, so that a long history stays cheap.
    drawStrip() {
        const kinds = this.states.map(({ loops, islands, silent }) => (loops ? 'loop' : islands ? 'island' : silent ? 'silent' : ''));
        const key = kinds.join();
        if (key === this.strip) return;
        this.strip = key;
        const bars = [];
        for (let from = 0, to; from < kinds.length; from = to) {
            for (to = from + 1; to < kinds.length && kinds[to] === kinds[from];) to++;
            if (kinds[from]) bars.push(svg('rect', { class: kinds[from], x: from - 0.5, width: to - from, y: 0, height: 1 }));
        }
        const strip = byId('strip');
        setAttribute(strip, 'viewBox', kinds.length > 1 ? `0 0 ${kinds.length - 1} 1` : '-0.5 0 1 1');
        strip.replaceChildren(...bars);
    }

    step(by) {
        const place = this.place() + by;
        if (place >= 0) this.at(place);
    }

    at(place) {
        if (place >= this.states.length - 1 && this.slider.max > 0) this.goLive();
        else if (this.states[place]) this.go(this.states[place].seq);
    }

    // `why`: what is said when it is not the operator who wants to.
    goLive(why = '') {
        this.seq = null;
        this.draw();
        this.handlers.live();
        if (why) this.handlers.missing(why);
    }

    async go(seq) {
        if (seq === this.states.at(-1)?.seq) return this.goLive();
        this.seq = seq;
        this.draw();
        if (this.fetching) return;
        this.fetching = true;
        let shown = null;
        while (this.seq !== null && this.seq !== shown) {
            shown = this.seq;
            const state = await fetchJson(`state?seq=${shown}`);
            if (this.seq !== shown) continue;
            if (state) this.handlers.past(state);
            else this.missed(shown, state === null);
        }
        this.fetching = false;
    }

    // The server keeps so many states only; those before one that it has dropped are gone too.
    missed(seq, dropped) {
        if (dropped) this.states = this.states.filter((state) => state.seq > seq);
        this.goLive(dropped ? NOT_KEPT : 'The server does not answer.');
    }

    showTime(ms) {
        setTime(byId('shown-time'), ms);
    }
}
