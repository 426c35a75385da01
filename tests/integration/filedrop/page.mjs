// filedrop's page in a real browser; with WENDREL_TLS=1 over HTTPS.
//
//     WENDREL_FILEDROP=... CHROMIUM=/usr/bin/chromium node --test page.mjs

import assert from 'node:assert/strict'
import crypto from 'node:crypto'
import fs from 'node:fs'
import os from 'node:os'
import path from 'node:path'
import { after, afterEach, before, beforeEach, test } from 'node:test'
import {
    freePort, kLimitMs, kScheme, launchBrowser, makeTlsOptions, start, startProxy, stop, waitUntil, watchPage,
} from '../support/browser.mjs'

const kServer = process.env.WENDREL_FILEDROP ?? 'wendrel-filedrop'
const kTlsOptions = makeTlsOptions()

let browser
let context
let page
let server
let url
let work
let directory
let troubles
let begun = 0

async function startServer({ port, options = [] } = {}) {
    port ??= await freePort()
    url = `${kScheme}://127.0.0.1:${port}`
    const started = start(kServer,
        ['--directory', directory, '--port', String(port), ...kTlsOptions, ...options], url)
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

beforeEach(async () => {
    begun += 1
    work = fs.mkdtempSync(path.join(os.tmpdir(), 'filedrop-page-'))
    directory = path.join(work, 'served')
    fs.mkdirSync(directory)
    await startServer()
    context = await browser.newContext({ acceptDownloads: true, ignoreHTTPSErrors: true })
    context.setDefaultTimeout(kLimitMs)
    page = await context.newPage()
    troubles = []
    // A refused request shows up on the console too; it is the page that has to explain it.
    watchPage(page, troubles, /^Failed to load resource|^WebSocket connection to .* failed/)
})

afterEach(async () => {
    await context.close()
    const code = await stop(server)
    fs.rmSync(work, { recursive: true })
    assert.equal(code, 0)
    assert.deepEqual(troubles, [], 'errors in the page, a breach of its own policy among them')
})

async function open() {
    await page.goto(url + '/')
    await page.locator('#files li, #empty:text("Nothing here yet")').first().waitFor()
}

const fileRow = (name) => page.locator('#files li', { has: page.getByText(name, { exact: true }) })
const uploadRow = (name) => page.locator('#uploads li', { has: page.getByText(name, { exact: true }) })

async function choose(...files) {
    const chooser = page.waitForEvent('filechooser')
    await page.getByRole('button', { name: 'Choose files' }).click()
    await (await chooser).setFiles(files)
}

function makeFile(name, size) {
    const file = path.join(work, name)
    fs.writeFileSync(file, crypto.randomBytes(size))
    return file
}

// Simulates dropping files from the desktop, with names that a desktop would not allow.
async function drop(names) {
    await page.evaluate((all) => {
        const dataTransfer = new DataTransfer()
        for (const name of all)
            dataTransfer.items.add(new File(['content of ' + name], name))
        for (const type of ['dragenter', 'dragover', 'drop'])
            document.getElementById('drop').dispatchEvent(
                new DragEvent(type, { dataTransfer, bubbles: true, cancelable: true }))
    }, names)
}

test('a file goes up, is listed, comes down and is deleted', async () => {
    const source = makeFile('holiday video.bin', 24 * 1024 * 1024)
    await open()
    await page.evaluate(() => {
        window.seen = []
        new MutationObserver(() => {
            const bar = document.querySelector('#uploads progress')
            if (bar)
                window.seen.push(bar.value)
        }).observe(document.getElementById('uploads'), { subtree: true, childList: true, attributes: true })
    })
    await choose(source)
    const upload = uploadRow('holiday video.bin')
    await upload.getByText('Uploaded, 24.0 MiB').waitFor()
    assert.equal(await upload.locator('progress').evaluate((bar) => bar.value), 1)
    const seen = await page.evaluate(() => window.seen)
    assert.deepEqual(seen, [...seen].sort((a, b) => a - b), 'progress never goes back')
    assert.equal(seen.at(-1), 1)

    const row = fileRow('holiday video.bin')
    await row.getByText('24.0 MiB').waitFor()
    assert.deepEqual(fs.readdirSync(directory), ['holiday video.bin'])

    const downloading = page.waitForEvent('download')
    await row.getByRole('link', { name: 'Download holiday video.bin' }).click()
    const download = await downloading
    assert.equal(download.suggestedFilename(), 'holiday video.bin')
    const target = path.join(work, 'target')
    await download.saveAs(target)
    assert.ok(fs.readFileSync(target).equals(fs.readFileSync(source)))

    await row.getByRole('button', { name: 'Delete holiday video.bin' }).click()
    const dialog = page.getByRole('dialog')
    await dialog.getByText('“holiday video.bin” will be deleted for everyone.').waitFor()
    await dialog.getByRole('button', { name: 'Keep it' }).click()
    assert.equal(fs.readdirSync(directory).length, 1)
    await row.getByRole('button', { name: 'Delete holiday video.bin' }).click()
    await dialog.getByRole('button', { name: 'Delete' }).click()
    await row.waitFor({ state: 'detached' })
    await page.getByText('Nothing here yet').waitFor()
    assert.deepEqual(fs.readdirSync(directory), [])
})

test('several files go up at once', async () => {
    await open()
    const names = Array.from({ length: 7 }, (_, number) => `file ${number}.bin`)
    await choose(...names.map((name, number) => makeFile(name, 100000 + number)))
    for (const name of names) {
        await uploadRow(name).getByText('Uploaded').waitFor()
        await fileRow(name).waitFor()
    }
    assert.deepEqual(fs.readdirSync(directory).sort(), names)
    await page.getByRole('button', { name: 'Clear finished' }).click()
    assert.equal(await page.locator('#uploads li').count(), 0)
})

test('files can be dropped', async () => {
    await open()
    await drop(['dropped.txt'])
    await uploadRow('dropped.txt').getByText('Uploaded').waitFor()
    assert.equal(fs.readFileSync(path.join(directory, 'dropped.txt'), 'utf8'), 'content of dropped.txt')
})

test('a refused name is explained in words', async () => {
    await open()
    for (const [name, words] of [['bad\u0085name', 'A name cannot contain control characters.'],
        ['bad\u0001name', 'percent-encoded control character in the path'],
        ['..', 'A file cannot have this name.'],
        ['n'.repeat(256), 'The name is longer than 255 bytes.'],
        ['.filedrop-upload-1', 'Names that begin like this are kept for unfinished uploads.']]) {
        await drop([name])
        await page.getByRole('alert').getByText(words).waitFor()
        await page.locator('#uploads li.failed').getByText(words).waitFor()
        await page.getByRole('button', { name: 'Dismiss' }).click()
        await page.getByRole('alert').waitFor({ state: 'hidden' })
    }
    assert.deepEqual(fs.readdirSync(directory), [])
})

test('a slash in a name is explained in words', async () => {
    await open()
    await drop(['a/b'])
    await page.getByRole('alert').getByText('A name cannot contain a slash.').waitFor()
    assert.deepEqual(fs.readdirSync(directory), [])
})

test('a file above the limit is explained in words', async () => {
    await stop(server)
    await startServer({ options: ['--max-upload', '1M'] })
    await open()
    await choose(makeFile('large.bin', 1024 * 1024 + 1))
    await page.getByRole('alert').getByText('1 MiB').waitFor()
    assert.deepEqual(fs.readdirSync(directory), [])
})

test('names are shown as text', async () => {
    const name = '<img src=x onerror=alert(1)>&amp;"\'.html'
    fs.writeFileSync(path.join(directory, name), 'x')
    let dialogs = 0
    page.on('dialog', (dialog) => {
        dialogs += 1
        dialog.dismiss()
    })
    await open()
    await fileRow(name).waitFor()
    await page.getByRole('button', { name: `Delete ${name}`, exact: true }).click()
    await page.getByRole('dialog').getByText(`“${name}” will be deleted for everyone.`).waitFor()
    assert.equal(await page.locator('img').count(), 0)
    assert.equal(dialogs, 0)
})

test('an upload can be cancelled', async () => {
    const session = await context.newCDPSession(page)
    await open()
    await session.send('Network.enable')
    await session.send('Network.emulateNetworkConditions',
        { offline: false, latency: 0, downloadThroughput: -1, uploadThroughput: 512 * 1024 })
    await choose(makeFile('long.bin', 40 * 1024 * 1024))
    const row = uploadRow('long.bin')
    await row.getByText(/% of 40\.0 MiB/).waitFor()
    await row.getByRole('button', { name: 'Cancel the upload of long.bin' }).click()
    await row.getByText('Cancelled').waitFor()
    await page.locator('#files li').waitFor({ state: 'detached' })
    await waitUntil(() => fs.readdirSync(directory).length === 0, 'the unfinished upload is removed')
})

test('what others do appears by itself and leaves the rest alone', async () => {
    fs.writeFileSync(path.join(directory, 'b'), 'one')
    await open()
    const link = fileRow('b').getByRole('link', { name: 'b', exact: true })
    await link.focus()
    const row = await fileRow('b').elementHandle()
    fs.writeFileSync(path.join(directory, 'a'), 'two')
    await fileRow('a').waitFor()
    assert.deepEqual(await page.locator('#files .name').allTextContents(), ['a', 'b'])
    assert.ok(await row.evaluate((node) => node.isConnected), 'the row is still the same')
    assert.ok(await link.evaluate((node) => node === document.activeElement), 'the focus stays')
    fs.rmSync(path.join(directory, 'a'))
    await fileRow('a').waitFor({ state: 'detached' })
})

test('a stopped server is reported and found again', async () => {
    await open()
    const { port } = new URL(url)
    await stop(server)
    await page.getByText('The server does not respond.').waitFor()
    await drop(['late.txt'])
    await page.getByRole('alert').getByText('The connection to the server was lost.').waitFor()
    await startServer({ port })
    await page.getByText('The server does not respond.').waitFor({ state: 'hidden' })
})

const kProxy = ['nginx', 'haproxy'].find((name) => fs.existsSync('/usr/sbin/' + name))

// Puts a proxy, configured as in deploy/, between browser and server until `body` has run.
async function behindProxy(body) {
    const proxy = startProxy(kProxy, new URL(url).port)
    try {
        url = await proxy.ready
        await body()
    } finally {
        await stop(proxy.process)
    }
}

// The server sends each change; the page asks at most once, after its own upload.
async function expectPushed() {
    let asked = 0
    page.on('request', (request) => asked += request.url().endsWith('/api/files'))
    await open()
    await page.locator('html[data-list=pushed]').waitFor()
    const before = asked
    for (const name of ['a', 'b', 'c']) {
        fs.writeFileSync(path.join(directory, name), name)
        await fileRow(name).waitFor()
    }
    await choose(makeFile('d', 100))
    await fileRow('d').waitFor()
    assert.ok(asked - before <= 1, `asked ${asked - before} times: by the upload alone`)
}

test('the list is pushed and asked for when the server has stopped', async () => {
    await expectPushed()
    await stop(server)
    await page.locator('html[data-list=polled]').waitFor()
    await page.getByText('The server does not respond.').waitFor()
})

test('the list is pushed through a proxy and asked for again without it', { skip: !kProxy }, async () => {
    await behindProxy(expectPushed)
    await page.locator('html[data-list=polled]').waitFor()
    await page.getByText('The server does not respond.').waitFor()
})

test('a page that is hidden keeps no connection', async () => {
    const listeners = async () => (await (await context.request.get(url + '/api/status')).json()).listeners
    await open()
    await page.locator('html[data-list=pushed]').waitFor()
    assert.equal(await listeners(), 1)
    await page.evaluate(() => {
        Object.defineProperty(document, 'hidden', { value: true, configurable: true })
        document.dispatchEvent(new Event('visibilitychange'))
    })
    await waitUntil(async () => await listeners() === 0, 'the connection ends')
    fs.writeFileSync(path.join(directory, 'a'), 'one')
    await page.evaluate(() => {
        delete document.hidden
        document.dispatchEvent(new Event('visibilitychange'))
    })
    await fileRow('a').waitFor()
    await waitUntil(async () => await listeners() === 1, 'the connection is open again')
})

test('everything can be reached with the keyboard', async () => {
    fs.writeFileSync(path.join(directory, 'a'), 'one')
    await open()
    await fileRow('a').waitFor()
    const reached = []
    for (let i = 0; i < 5; ++i) {
        await page.keyboard.press('Tab')
        reached.push(await page.evaluate(() => document.activeElement.getAttribute('aria-label')
            ?? document.activeElement.textContent))
    }
    assert.deepEqual(reached.slice(0, 4), ['Choose files', 'a', 'Download a', 'Delete a'])
    await page.locator('button', { hasText: 'Delete' }).first().focus()
    await page.keyboard.press('Enter')
    assert.equal(await page.evaluate(() => document.activeElement.id), 'confirm-no')
    await page.keyboard.press('Escape')
    assert.equal(await page.evaluate(() => document.getElementById('confirm').open), false)
    assert.deepEqual(fs.readdirSync(directory), ['a'])
})
