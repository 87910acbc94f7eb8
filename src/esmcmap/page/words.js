// Words and elements: how a quality level, a state, a time or an age is written, and how elements are made. Everything that
// comes from a switch passes through textContent or an attribute here, so that a name is never read as markup.

const NAMES = {
    eprtc: 'ePRTC', prtc: 'PRTC', eprc: 'ePRC', prc: 'PRC', prs: 'PRS', 'ssu-a': 'SSU-A', 'ssu-b': 'SSU-B', st2: 'ST2', tnc: 'TNC',
    st3e: 'ST3E', eeec: 'eEEC', eec1: 'EEC1', eec2: 'EEC2', smc: 'SMC', stu: 'STU', prov: 'PROV', dnu: 'DNU', dus: 'DUS', na: 'none', none: 'none',
};

// Levels that are as good as each other to an operator share a colour; the text always says which one it is.
export const GROUPS = [
    { group: 'primary', text: 'primary reference', levels: ['eprtc', 'prtc', 'eprc', 'prc', 'prs'] },
    { group: 'transit', text: 'STU, SSU-A, ST2, TNC', levels: ['stu', 'ssu-a', 'st2', 'tnc'] },
    { group: 'local', text: 'SSU-B, ST3E', levels: ['ssu-b', 'st3e'] },
    { group: 'equipment', text: 'equipment clock, PROV', levels: ['eeec', 'eec1', 'eec2', 'smc', 'prov'] },
    { group: 'unusable', text: 'do not use, none', levels: ['dnu', 'dus', 'na', 'none'] },
];

const STATES = {
    master: 'master', lock: 'locked', holdover: 'holdover', freerun: 'free-running', off: 'SyncE off', unknown: 'unknown',
};

export function qualityText(token) {
    return Object.hasOwn(NAMES, token ?? '') ? NAMES[token] : String(token ?? 'none');
}

export function qualityGroup(token) {
    return GROUPS.find((group) => group.levels.includes(token ?? 'none'))?.group ?? 'other';
}

// Place in the order of the groups, for sorting: smaller is better.
export function qualityRank(token) {
    const place = GROUPS.flatMap((group) => group.levels).indexOf(token ?? 'none');
    return place < 0 ? 99 : place;
}

export function stateText(state) {
    return Object.hasOwn(STATES, state) ? STATES[state] : String(state);
}

export function count(number, one, many = `${one}s`) {
    return `${number} ${number === 1 ? one : many}`;
}

export function cut(text, length) {
    const letters = [...text];
    return letters.length <= length ? text : `${letters.slice(0, length - 1).join('')}…`;
}

export function age(ms) {
    const seconds = Math.max(0, Math.round(ms / 1000));
    if (seconds < 100) return `${seconds} s`;
    if (seconds < 6000) return `${Math.floor(seconds / 60)} min`;
    if (seconds < 172800) return `${Math.floor(seconds / 3600)} h`;
    return `${Math.floor(seconds / 86400)} d`;
}

const clockFormat = new Intl.DateTimeFormat(undefined, { hour: '2-digit', minute: '2-digit', second: '2-digit', hourCycle: 'h23' });
const dayFormat = new Intl.DateTimeFormat(undefined, { day: 'numeric', month: 'short' });

// Local time; with the day when it is not today.
export function clockText(ms) {
    const time = new Date(ms);
    const text = clockFormat.format(time);
    return time.toDateString() === new Date().toDateString() ? text : `${dayFormat.format(time)} ${text}`;
}

export function setTime(element, ms) {
    const iso = new Date(ms).toISOString();
    if (element.dateTime === iso) return;
    element.dateTime = iso;
    element.title = iso;
    element.textContent = clockText(ms);
}

// Why a switch that did not answer is drawn so; empty for one that did.
export function answerText(node, now) {
    switch (node.answer) {
        case 'silent': return node.answered ? `silent ${age(now - node.answered)}` : 'never answered';
        case 'garbage': return 'unreadable';
        case 'waiting': return 'waiting';
        default: return '';
    }
}

// One sentence for those who do not see the drawing.
export function describe(node, now) {
    if (node.kind === 'stranger') return `${node.id}, a stranger: not among the switches that are asked`;
    const parts = [`${node.id}, ${stateText(node.state)}`];
    if (node.follows) parts.push(`follows ${node.follows}${node.source ? ` by ${node.source}` : ''}`);
    parts.push(`quality ${qualityText(node.quality)}`);
    if (node.root && node.hops) parts.push(`${count(node.hops, 'hop')} from ${node.root}`);
    for (const mark of marks(node)) parts.push(mark);
    const answer = answerText(node, now);
    if (answer) parts.push(answer);
    return parts.join(', ');
}

export function marks(node) {
    return [node.loop && 'in a loop', node.island && 'on an island', node.claim && 'claims more than it has'].filter(Boolean);
}

// --- elements ---------------------------------------------------------------------------------------------------

export function byId(id) {
    return document.getElementById(id);
}

function fill(element, attributes, children) {
    for (const [name, value] of Object.entries(attributes)) {
        if (name.startsWith('on')) element.addEventListener(name.slice(2), value);
        else if (value !== null && value !== undefined && value !== false) element.setAttribute(name, value === true ? '' : value);
    }
    element.append(...children.filter((child) => child !== null && child !== undefined));
    return element;
}

export function html(tag, attributes = {}, ...children) {
    return fill(document.createElement(tag), attributes, children);
}

export function svg(tag, attributes = {}, ...children) {
    return fill(document.createElementNS('http://www.w3.org/2000/svg', tag), attributes, children);
}

export function button(text, pressed, attributes = {}) {
    return html('button', { type: 'button', onclick: pressed, ...attributes }, text);
}

// Elements are written to only when they differ: an unchanged one is neither laid out nor painted again.
export function setText(element, text) {
    if (element.textContent !== text) element.textContent = text;
}

export function setAttribute(element, name, value) {
    if (value === null || value === undefined || value === false) {
        if (element.hasAttribute(name)) element.removeAttribute(name);
    } else if (element.getAttribute(name) !== String(value)) {
        element.setAttribute(name, value);
    }
}
