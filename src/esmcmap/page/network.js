// A state of the network as the server tells it, and what can be read from it: the path of a switch to its master, who follows
// whom, what a search finds. A node or link that did not change stays the same object from one state to the next: those who draw
// it compare objects and touch nothing else.

function keyed(list, before) {
    const map = new Map();
    for (const entry of list) {
        const old = before?.get(entry.id);
        map.set(entry.id, old && JSON.stringify(old) === JSON.stringify(entry) ? old : entry);
    }
    return map;
}

export class Network {
    // `before`: the network shown so far, whose equal objects are kept.
    constructor(state, before) {
        this.nodes = keyed(state.nodes, before?.nodes);
        this.links = keyed(state.links, before?.links);
        this.remember(state);
    }

    // What an event `change` says of this network.
    change(event) {
        for (const id of event.gone) this.nodes.delete(id);
        for (const id of event.gone_links) this.links.delete(id);
        for (const node of event.nodes) this.nodes.set(node.id, node);
        for (const link of event.links) this.links.set(link.id, link);
        this.remember(event);
    }

    remember({ t, seq, loops, islands, claims, problems }) {
        Object.assign(this, { t, seq, loops, islands, claims, problems });
    }

    switches() {
        return [...this.nodes.values()].filter((node) => node.kind === 'switch');
    }

    silent() {
        return this.switches().filter((node) => node.answer === 'silent' || node.answer === 'garbage').length;
    }

    followers(id) {
        return [...this.nodes.values()].filter((node) => node.follows === id).map((node) => node.id);
    }

    linksOf(id) {
        return [...this.links.values()].filter((link) => link.a === id || link.b === id);
    }

    // The link by which a node takes its clock: that of its source port, where several come from the same neighbour.
    sourceLink(node) {
        const ends = this.linksOf(node.id).map((link) =>
            (link.a === node.id ? { link, from: link.b, port: link.a_port, clock: 'ba' } : { link, from: link.a, port: link.b_port, clock: 'ab' }));
        const candidates = ends.filter(({ link, from, clock }) => from === node.follows && link.clock === clock);
        return (candidates.find(({ port }) => port === node.source) ?? candidates[0])?.link;
    }

    // From a switch up to where its clock comes from: the switches and links in this order, and whether it runs in a circle.
    path(id) {
        const ids = [], links = [];
        let node = this.nodes.get(id);
        while (node && !ids.includes(node.id)) {
            ids.push(node.id);
            const link = node.follows && this.sourceLink(node);
            if (link) links.push(link.id);
            node = node.follows ? this.nodes.get(node.follows) : null;
        }
        return { ids, links, circle: Boolean(node) };
    }

    // The ids of those whose name, clock id, or address of a port contains the words.
    find(words) {
        const wanted = words.trim().toLowerCase();
        if (!wanted) return [];
        const holds = (text) => Boolean(text) && text.toLowerCase().includes(wanted);
        return [...this.nodes.values()]
            .filter((node) => holds(node.id) || holds(node.clock_id) || node.ports.some((port) => holds(port.address)))
            .map((node) => node.id);
    }
}
