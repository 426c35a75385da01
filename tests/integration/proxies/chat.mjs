// The chat's page in two windows of a real browser: directly, with WENDREL_TLS=1 over HTTPS, or with
// WENDREL_PROXY through a proxy configured as in deploy/.
//
//     WENDREL_PROXY=nginx WENDREL_CHAT=... CHROMIUM=/usr/bin/chromium node --test chat.mjs

import assert from 'node:assert/strict'
import { after, afterEach, before, beforeEach, test } from 'node:test'
import {
    freePort, kLimitMs, kScheme, launchBrowser, makeTlsOptions, start, startProxy, stop, waitUntil, watchPage,
} from '../support/browser.mjs'

const kProxy = process.env.WENDREL_PROXY
const kServer = process.env.WENDREL_CHAT ?? 'wendrel-chat'
const kTlsOptions = makeTlsOptions()

let browser
let server
let backendPort
let proxy
let url
let contexts
let troubles
let begun = 0

async function startServer() {
    const started = start(kServer, ['--port', String(backendPort), ...kTlsOptions],
        `${kScheme}://127.0.0.1:${backendPort}/`)
    server = started.process
    await started.ready
}

before(async () => {
    browser = await launchBrowser()
})

after(async () => {
    await browser?.close()
    assert.ok(begun > 0, 'a pattern that names no test must not pass')
})

async function startOwnProxy(...options) {
    const started = startProxy(kProxy, backendPort, ...options)
    proxy = started.process
    url = await started.ready
}

beforeEach(async () => {
    begun += 1
    contexts = []
    troubles = []
    backendPort = await freePort()
    await startServer()
    url = `${kScheme}://127.0.0.1:${backendPort}`
    if (kProxy)
        await startOwnProxy()
})

afterEach(async () => {
    for (const context of contexts)
        await context.close()
    // The proxy first: it must not connect to a stopped server.
    const proxyCode = kProxy ? await stop(proxy) : 0
    assert.equal(await stop(server), 0)
    assert.equal(proxyCode, 0)
    assert.deepEqual(troubles, [], 'errors in a page, a breach of its own policy among them')
})

// The i-th byte of an opaque picture of noise, which no compression makes small. Runs in the page.
function noiseAt(i) {
    const mixed = Math.imul(i ^ (i >>> 15), 0x2c1b3c6d)
    return i % 4 === 3 ? 255 : (mixed ^ (mixed >>> 12)) >>> 16 & 255
}

// A window in which somebody has come in.
async function enter(nickname) {
    // The certificate of a test is signed by itself.
    const context = await browser.newContext({ ignoreHTTPSErrors: true })
    contexts.push(context)
    await context.addInitScript(`window.noiseAt = ${noiseAt}`)
    context.setDefaultTimeout(kLimitMs)
    const page = await context.newPage()
    // The message of the page for a lost connection is tested elsewhere.
    watchPage(page, troubles, /Failed to load resource|WebSocket connection to/)
    await page.goto(url + '/')
    await page.locator('#status').getByText('connected', { exact: true }).waitFor()
    await page.locator('#nickname').fill(nickname)
    await page.locator('#room').fill('garden')
    await page.locator('#join').click()
    await page.locator('#chat').waitFor()
    return page
}

async function say(page, text) {
    await page.locator('#text').fill(text)
    await page.locator('#send').click()
}

const line = (page, who, text) => page.locator('#lines li')
    .filter({ has: page.locator('.who').getByText(who, { exact: true }) })
    .filter({ has: page.locator('.text').getByText(text, { exact: true }) })

// Asks the page again and again. Playwright's own waiting for a condition has the page evaluate a
// string, which its policy forbids, unless the condition holds at once.
function until(page, condition, argument) {
    return waitUntil(() => page.evaluate(condition, argument), `${condition}, ${argument}`)
}

async function waitForPeople(page, ...names) {
    await until(page,
        (wanted) => [...document.querySelectorAll('#people li')].map((item) => item.textContent).sort().join()
            === wanted,
        names.sort().join())
}

test('a line typed in one window appears in the other', async () => {
    const ada = await enter('Ada')
    const bob = await enter('Bob')
    await say(ada, 'Is anybody here?')
    await line(bob, 'Ada', 'Is anybody here?').waitFor()
    await say(bob, 'Grüße, <b>Ada</b> 🎉')
    await line(ada, 'Bob', 'Grüße, <b>Ada</b> 🎉').waitFor()
    for (const page of [ada, bob])
        assert.deepEqual(await page.locator('#lines .text').allTextContents(),
            ['Is anybody here?', 'Grüße, <b>Ada</b> 🎉'])
})

test('lines sent in a burst all arrive in order', async () => {
    const ada = await enter('Ada')
    const bob = await enter('Bob')
    const texts = Array.from({ length: 30 }, (_, number) => `line ${number}`)
    await ada.evaluate((all) => {
        for (const text of all) {
            document.getElementById('text').value = text
            document.getElementById('say').requestSubmit()
        }
    }, texts)
    await line(bob, 'Ada', texts.at(-1)).waitFor()
    assert.deepEqual(await bob.locator('#lines .text').allTextContents(), texts)
})

test('the lists of people show both and lose who closes the window', async () => {
    const ada = await enter('Ada')
    await waitForPeople(ada, 'Ada')
    const bob = await enter('Bob')
    await waitForPeople(ada, 'Ada', 'Bob')
    await waitForPeople(bob, 'Ada', 'Bob')
    await contexts[1].close()
    await waitForPeople(ada, 'Ada')
})

test('a picture dropped in one window appears in the other', async () => {
    const ada = await enter('Ada')
    const bob = await enter('Bob')
    const size = await ada.evaluate(async () => {
        const canvas = new OffscreenCanvas(613, 419)
        const drawing = canvas.getContext('2d')
        const noise = drawing.createImageData(613, 419)
        for (let i = 0; i < noise.data.length; ++i)
            noise.data[i] = window.noiseAt(i)
        drawing.putImageData(noise, 0, 0)
        const blob = await canvas.convertToBlob({ type: 'image/png' })
        const dataTransfer = new DataTransfer()
        dataTransfer.items.add(new File([blob], 'noise.png', { type: 'image/png' }))
        for (const type of ['dragenter', 'dragover', 'drop'])
            document.getElementById('lines').dispatchEvent(
                new DragEvent(type, { dataTransfer, bubbles: true, cancelable: true }))
        return blob.size
    })
    assert.ok(size > 512 * 1024, `${size} bytes`)
    for (const page of [ada, bob]) {
        const image = page.locator('#lines li img')
        await image.waitFor()
        await until(page, () => document.querySelector('#lines img').complete)
        assert.deepEqual(await image.evaluate((shown) => {
            const canvas = new OffscreenCanvas(shown.naturalWidth, shown.naturalHeight)
            const drawing = canvas.getContext('2d')
            drawing.drawImage(shown, 0, 0)
            const { data } = drawing.getImageData(0, 0, canvas.width, canvas.height)
            const wrong = data.findIndex((value, i) => value !== window.noiseAt(i))
            return [canvas.width, canvas.height, wrong]
        }), [613, 419, -1])
        await page.locator('#lines li', { has: page.locator('img') })
            .locator('.who').getByText('Ada', { exact: true }).waitFor()
    }
})

test('a chat that is started again is found again', async () => {
    const ada = await enter('Ada')
    const bob = await enter('Bob')
    assert.equal(await stop(server), 0)
    for (const page of [ada, bob])
        await page.locator('#status').getByText('connecting').waitFor()
    await startServer()
    for (const page of [ada, bob])
        await page.locator('#status').getByText('connected', { exact: true }).waitFor()
    for (const page of [ada, bob])
        await waitForPeople(page, 'Ada', 'Bob')
    await say(bob, 'We are back')
    await line(ada, 'Bob', 'We are back').waitFor()
})

test('over TLS a line typed in one window appears in the other', async () => {
    assert.equal(await stop(proxy), 0)
    await startOwnProxy('--tls')
    assert.match(url, /^https:/)
    const ada = await enter('Ada')
    assert.equal(await ada.evaluate(() => performance.getEntriesByType('navigation')[0].nextHopProtocol), 'h2')
    const bob = await enter('Bob')
    await say(ada, 'Nobody else can read this')
    await line(bob, 'Ada', 'Nobody else can read this').waitFor()
    await say(bob, 'Except this server')
    await line(ada, 'Bob', 'Except this server').waitFor()
})
