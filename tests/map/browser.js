// A browser that tests steer: one JSON command a line on standard input, one JSON answer a line on standard output. It knows
// nothing of the map; what holds is asserted by those who ask. Every request, complaint, long task and the time from each
// event of the server to the painted frame is kept until asked for.
const path = require('path');
const readline = require('readline');
const modules = path.resolve(process.argv[2], 'node_modules');
const puppeteer = require(path.join(modules, 'puppeteer-core'));
const axe = require('fs').readFileSync(path.join(modules, 'axe-core', 'axe.min.js'), 'utf8');

let browser, page, kept, meter;

// Runs in the page before its own scripts.
function measure() {
    window.measured = { painted: [], long: [] };
    new PerformanceObserver((list) => list.getEntries().forEach((entry) => window.measured.long.push(entry.duration)))
        .observe({ type: 'longtask', buffered: true });
    const listen = EventSource.prototype.addEventListener;
    EventSource.prototype.addEventListener = function (name, handler) {
        listen.call(this, name, (event) => {
            const began = performance.now();
            handler(event);
            requestAnimationFrame(() => setTimeout(() => window.measured.painted.push({ name, ms: performance.now() - began })));
        });
    };
}

const commands = {
    async open({ url, theme = 'light', width = 1440, height = 900, motion = 'reduce' }) {
        if (page) await page.close();
        kept = { complaints: [], requests: [] };
        page = await browser.newPage();
        page.on('console', (said) => ['error', 'warn', 'assert'].includes(said.type()) && kept.complaints.push(said.text()));
        page.on('pageerror', (error) => kept.complaints.push(String(error)));
        page.on('request', (request) => kept.requests.push(request.url()));
        await page.setViewport({ width, height });
        await page.emulateMediaFeatures([{ name: 'prefers-color-scheme', value: theme }, { name: 'prefers-reduced-motion', value: motion }]);
        await page.evaluateOnNewDocument(measure);
        meter = await page.createCDPSession();
        await meter.send('Performance.enable', { timeDomain: 'threadTicks' });
        await page.goto(url, { waitUntil: 'load' });
    },
    eval: ({ js }) => page.evaluate(js),
    wait: async ({ js, ms = 5000 }) => (await page.waitForFunction(js, { timeout: ms, polling: 20 })).jsonValue(),
    click: ({ at }) => page.click(at),
    press: ({ key }) => page.keyboard.press(key),
    type: ({ at, text }) => page.type(at, text),
    shot: ({ file, clip }) => page.screenshot({ path: file, clip }),
    async axe() {
        await page.evaluate(axe);
        const { violations, passes } = await page.evaluate("axe.run(document, {resultTypes: ['violations']})");
        return { passes: passes.length, violations: violations.map(({ id, impact, nodes }) => ({ id, impact, nodes: nodes.map((node) => `${node.html.slice(0, 160)} ${node.failureSummary}`) })) };
    },
    // Seconds of a processor that the page's main thread has had.
    used: async () => (await meter.send('Performance.getMetrics')).metrics.find(({ name }) => name === 'TaskDuration').value,
    log: async () => ({ ...kept, ...(await page.evaluate('window.measured')) }),
};

async function main() {
    // The pages are our own; the sandbox of the browser would need rights that a container seldom has.
    browser = await puppeteer.launch({
        executablePath: process.argv[3], args: ['--no-sandbox', '--disable-background-networking', '--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1'],
    });
    for await (const line of readline.createInterface({ input: process.stdin })) {
        const { do: name, ...more } = JSON.parse(line);
        let answer;
        try {
            answer = { value: await commands[name](more) };
        } catch (error) {
            answer = { error: `${name}: ${error.message}` };
        }
        process.stdout.write(`${JSON.stringify(answer)}\n`);
    }
    await browser.close();
}

main();
