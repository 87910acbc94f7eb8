// Which part of the drawing is seen, and how large: fitted to the window until the operator moves or zooms it. Mouse, wheel,
// one finger and two, buttons and keys come together here; the drawing itself knows nothing of them.

const SMALLEST = 0.08, LARGEST = 4, FITTED = 1.5;
const CLICK_PX = 4;  // a pointer that moved less has clicked

export class View {
    constructor(frame, world) {
        Object.assign(this, { frame, world, k: 1, x: 0, y: 0, own: false, bounds: null });
        this.pointers = new Map();
        frame.addEventListener('wheel', (event) => this.wheel(event), { passive: false });
        frame.addEventListener('pointerdown', (event) => this.down(event));
        frame.addEventListener('pointermove', (event) => this.move(event));
        for (const name of ['pointerup', 'pointercancel']) frame.addEventListener(name, (event) => this.up(event));
        new ResizeObserver(() => this.refit()).observe(frame);
    }

    apply() {
        this.world.setAttribute('transform', `translate(${this.x} ${this.y}) scale(${this.k})`);
        // Far away, letters grow against the shapes, and what would not be legible is left out. They grow in steps: each one
        // costs a look at the style of every shape, which a zoom can't afford in each frame.
        const grow = Math.min(2, Math.max(1, Math.round(4 * 0.85 / this.k) / 4));
        if (grow !== this.grow) this.frame.style.setProperty('--grow', this.grow = grow);
        this.frame.classList.toggle('far', this.k < 0.62);
    }

    size() {
        return this.frame.getBoundingClientRect();
    }

    zoom(factor, at) {
        const size = this.size();
        const x = at ? at.x - size.left : size.width / 2, y = at ? at.y - size.top : size.height / 2;
        const k = Math.min(LARGEST, Math.max(SMALLEST, this.k * factor));
        this.x = x - (x - this.x) * (k / this.k);
        this.y = y - (y - this.y) * (k / this.k);
        this.k = k;
        this.own = true;
        this.apply();
    }

    pan(dx, dy) {
        this.x += dx;
        this.y += dy;
        this.own = true;
        this.apply();
    }

    // Shows all of the bounds {left, top, right, bottom}, and goes on doing so.
    fit(bounds = this.bounds) {
        this.bounds = bounds;
        this.own = false;
        const size = this.size();
        if (!bounds || !size.width || !size.height) return;
        const width = bounds.right - bounds.left, height = bounds.bottom - bounds.top;
        this.k = Math.max(SMALLEST, Math.min(FITTED, size.width / width, size.height / height));
        this.x = (size.width - this.k * (bounds.left + bounds.right)) / 2;
        this.y = (size.height - this.k * (bounds.top + bounds.bottom)) / 2;
        this.apply();
    }

    refit(bounds = this.bounds) {
        this.bounds = bounds;
        if (!this.own) this.fit();
    }

    // Moves a point of the drawing into sight, no further than needed.
    reveal(x, y, margin = 60) {
        const size = this.size();
        if (!size.width || !size.height) return;
        const at = { x: this.x + this.k * x, y: this.y + this.k * y };
        const dx = Math.max(margin - at.x, 0) + Math.min(size.width - margin - at.x, 0);
        const dy = Math.max(margin - at.y, 0) + Math.min(size.height - margin - at.y, 0);
        if (dx || dy) this.pan(dx, dy);
    }

    wheel(event) {
        event.preventDefault();
        const pixels = event.deltaMode === WheelEvent.DOM_DELTA_LINE ? event.deltaY * 16 : event.deltaY;
        this.zoom(Math.exp(-Math.max(-200, Math.min(200, pixels)) / (event.ctrlKey ? 100 : 400)), { x: event.clientX, y: event.clientY });
    }

    down(event) {
        if (event.button !== 0) return;
        if (this.pointers.size === 0) this.travelled = 0;
        this.pointers.set(event.pointerId, { x: event.clientX, y: event.clientY });
    }

    move(event) {
        const before = this.pointers.get(event.pointerId);
        if (!before) return;
        const now = { x: event.clientX, y: event.clientY };
        this.travelled += Math.hypot(now.x - before.x, now.y - before.y);
        if (this.travelled >= CLICK_PX) {
            if (!this.frame.hasPointerCapture(event.pointerId)) this.frame.setPointerCapture(event.pointerId);
            if (this.pointers.size === 1) this.pan(now.x - before.x, now.y - before.y);
            if (this.pointers.size === 2) this.pinch(event.pointerId, before, now);
        }
        this.pointers.set(event.pointerId, now);
    }

    pinch(moved, before, now) {
        const [, other] = [...this.pointers].find(([id]) => id !== moved);
        const distance = (point) => Math.max(1, Math.hypot(point.x - other.x, point.y - other.y));
        this.zoom(distance(now) / distance(before), { x: (now.x + other.x) / 2, y: (now.y + other.y) / 2 });
        this.pan((now.x - before.x) / 2, (now.y - before.y) / 2);
    }

    up(event) {
        this.pointers.delete(event.pointerId);
    }

    // Whether this click is but the end of a drag. One that no pointer made (of a screen reader, say) never is.
    dragged(click) {
        return click.detail > 0 && this.travelled >= CLICK_PX;
    }
}
