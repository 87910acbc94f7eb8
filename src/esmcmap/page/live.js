// The connection to the server: one stream of events, opened again whenever it is lost. A stream that says nothing for long is
// lost too, even if it seems open: the server tells something each second. A server that refuses the stream, having as many
// viewers as it takes, is asked for its state instead, until it gives one.

const AGAIN_MS = 1000;
const POLL_MS = 3000;
const PATIENCE_MS = 5000;

export class Live {
    // `handlers`: state(whole), change(event), tick(event), polled(whole), lost(); whole states begin each connection.
    constructor(handlers) {
        this.handlers = handlers;
        this.open();
        addEventListener('pagehide', () => this.close());
        addEventListener('pageshow', (event) => event.persisted && this.open());
    }

    open() {
        this.close();
        this.source = new EventSource('events');
        this.listen('state', this.handlers.state);
        this.listen('change', this.handlers.change);
        this.listen('tick', this.handlers.tick);
        this.source.onerror = () => (this.source.readyState === EventSource.CLOSED ? this.poll() : this.lost());
        this.watch();
    }

    listen(name, handler) {
        const source = this.source;
        source.addEventListener(name, (event) => {
            if (source !== this.source) return;
            this.watch();
            handler(parse(event.data));
        });
    }

    watch() {
        clearTimeout(this.timer);
        this.timer = setTimeout(() => this.lost(), PATIENCE_MS);
    }

    async poll() {
        this.close();
        const state = await fetchJson('state', PATIENCE_MS);
        if (this.source) return;  // the page was left, and is back
        if (!state) return this.lost();
        this.handlers.polled(state);
        this.timer = setTimeout(() => this.open(), POLL_MS);
    }

    lost() {
        this.close();
        this.handlers.lost();
        this.timer = setTimeout(() => this.open(), AGAIN_MS);
    }

    close() {
        clearTimeout(this.timer);
        this.source?.close();
        this.source = null;
    }
}

// Characters that can't be seen, or that turn the text around them, must not make one name look like another.
const HIDDEN = /[\u0000-\u001f\u007f-\u009f\u200b-\u200f\u2028-\u202e\u2060-\u2069\ufeff]/g;

function parse(text) {
    if (text.search(HIDDEN) < 0 && !text.includes('\\u')) return JSON.parse(text);
    return JSON.parse(text, (_, value) => (typeof value === 'string' ? value.replace(HIDDEN, '\ufffd') : value));
}

// An answer of the server as an object; null when it has none to this, undefined when it can't be reached.
export async function fetchJson(path, patience) {
    try {
        const answer = await fetch(path, { cache: 'no-store', signal: patience && AbortSignal.timeout(patience) });
        if (answer.ok) return parse(await answer.text());
        return answer.status === 404 ? null : undefined;
    } catch {
        return undefined;
    }
}
