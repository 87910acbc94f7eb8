// The connection to the server: one stream of events, opened again whenever it is lost. A stream that says nothing for long is
// lost too, even if it seems open: the server tells something at each of its polls.

const AGAIN_MS = 1000;
const PATIENCE_MS = 5000;

export class Live {
    // `handlers`: state(whole), change(event), tick(event), lost(); whole states begin each connection.
    constructor(handlers) {
        this.handlers = handlers;
        this.patience = PATIENCE_MS;
        this.open();
        addEventListener('pagehide', () => this.close());
        addEventListener('pageshow', (event) => event.persisted && this.open());
    }

    open() {
        this.close();
        this.source = new EventSource('events');
        this.listen('state', (state) => {
            this.patience = Math.max(PATIENCE_MS, 4 * (state.interval_ms ?? 0));
            this.handlers.state(state);
        });
        this.listen('change', this.handlers.change);
        this.listen('tick', this.handlers.tick);
        this.source.onerror = () => this.lost();
        this.watch();
    }

    listen(name, handler) {
        const source = this.source;
        source.addEventListener(name, (event) => {
            if (source !== this.source) return;
            this.watch();
            handler(JSON.parse(event.data));
        });
    }

    watch() {
        clearTimeout(this.timer);
        this.timer = setTimeout(() => this.lost(), this.patience);
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

// An answer of the server as an object, or null when it has none.
export async function fetchJson(path) {
    try {
        const answer = await fetch(path, { cache: 'no-store' });
        return answer.ok ? await answer.json() : null;
    } catch {
        return null;
    }
}
