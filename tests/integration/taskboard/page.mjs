// The task board's page in a real browser.
//
//     WENDREL_TASKBOARD=... CHROMIUM=/usr/bin/chromium node --test page.mjs

import assert from 'node:assert/strict'
import { spawnSync } from 'node:child_process'
import fs from 'node:fs'
import os from 'node:os'
import path from 'node:path'
import { after, afterEach, before, beforeEach, test } from 'node:test'
import { freePort, kLimitMs, launchBrowser, start, stop, watchPage } from '../support/browser.mjs'

const kServer = process.env.WENDREL_TASKBOARD ?? 'wendrel-taskboard'

let browser
let contexts
let server
let url
let work
let troubles
let begun = 0

before(async () => {
    browser = await launchBrowser()
})

after(async () => {
    await browser?.close()
    assert.ok(begun > 0, 'a pattern that names no test must not pass')
})

beforeEach(async () => {
    begun += 1
    contexts = []
    troubles = []
    work = fs.mkdtempSync(path.join(os.tmpdir(), 'taskboard-page-'))
    for (const name of ['ann', 'bob']) {
        const done = spawnSync(kServer, ['--data', work, '--add-user', name], { input: `of ${name}\n` })
        assert.equal(done.status, 0, done.stderr?.toString())
    }
    const port = await freePort()
    url = `http://127.0.0.1:${port}`
    const started = start(kServer, ['--data', work, '--port', String(port)], url)
    server = started.process
    await started.ready
})

afterEach(async () => {
    for (const context of contexts)
        await context.close()
    const code = await stop(server)
    fs.rmSync(work, { recursive: true })
    assert.equal(code, 0)
    assert.deepEqual(troubles, [], 'errors in the page, a breach of its own policy among them')
})

async function open() {
    const context = await browser.newContext({ acceptDownloads: true })
    contexts.push(context)
    context.setDefaultTimeout(kLimitMs)
    const page = await context.newPage()
    watchPage(page, troubles, /^Failed to load resource|^WebSocket connection to .* failed/)
    return page
}

async function logIn(page, name, password = `of ${name}`) {
    await page.goto(url + '/')
    await page.getByLabel('Name').fill(name)
    await page.getByLabel('Password').fill(password)
    await page.getByRole('button', { name: 'Log in' }).click()
}

const live = (page, text = 'live') => page.getByRole('status').getByText(text, { exact: true }).waitFor()
const cardIn = (page, state, title) =>
    page.locator(`#${state} article`, { has: page.getByText(title, { exact: true }) })

async function add(page, title) {
    await page.getByLabel('New task').fill(title)
    await page.getByRole('button', { name: 'Add' }).click()
}

async function openBoth() {
    const [ann, bob] = [await open(), await open()]
    await logIn(ann, 'ann')
    await logIn(bob, 'bob')
    await live(ann)
    await live(bob)
    return [ann, bob]
}

test('a wrong password is refused, the right one stays over a reload', async () => {
    const page = await open()
    await logIn(page, 'ann', 'guess')
    await page.getByRole('alert').getByText('Name or password are wrong.').waitFor()
    await logIn(page, 'ann')
    await live(page)
    await page.reload()
    await page.locator('#user', { hasText: 'ann' }).waitFor()
    await page.getByRole('button', { name: 'Log out' }).click()
    await page.getByRole('button', { name: 'Log in' }).waitFor()
})

test('a task of one user appears, moves and disappears at the other', async () => {
    const [ann, bob] = await openBoth()
    const title = 'Tea <img src=x onerror=alert(1)>'
    await add(ann, title)
    await cardIn(bob, 'open', title).getByText('by ann').waitFor()
    await cardIn(bob, 'open', title).getByRole('button', { name: 'Doing' }).click()
    await cardIn(ann, 'doing', title).waitFor()
    await cardIn(ann, 'doing', title).getByRole('button', { name: 'Delete' }).click()
    await cardIn(bob, 'doing', title).waitFor({ state: 'detached' })
})

test('an attachment goes up and comes down at the other user', async () => {
    const [ann, bob] = await openBoth()
    await add(ann, 'Report')
    const content = Buffer.alloc(200000, 'report ')
    await cardIn(ann, 'open', 'Report').locator('input[type=file]').setInputFiles(
        { name: 'Jahresbericht ä.html', mimeType: 'text/html', buffer: content })
    const link = cardIn(bob, 'open', 'Report').getByRole('link', { name: 'Jahresbericht ä.html' })
    const download = bob.waitForEvent('download')
    await link.click()
    const file = await (await download).path()
    assert.equal((await download).suggestedFilename(), 'Jahresbericht ä.html')
    assert.ok(fs.readFileSync(file).equals(content))
})

test('events take the place of a blocked WebSocket', async () => {
    const ann = await open()
    await ann.addInitScript(() => {
        // A proxy without WebSockets refuses the handshake: it is never open.
        window.WebSocket = class {
            constructor() {
                setTimeout(() => this.onclose?.(), 0)
            }

            close() {}
        }
    })
    const bob = await open()
    await logIn(ann, 'ann')
    await logIn(bob, 'bob')
    await live(ann, 'live by events')
    await live(bob)
    await add(bob, 'Tea')
    await cardIn(ann, 'open', 'Tea').waitFor()
})

test('the page comes back after a restart of the server', async () => {
    const page = await open()
    await logIn(page, 'ann')
    await live(page)
    await add(page, 'Before')
    await cardIn(page, 'open', 'Before').waitFor()
    assert.equal(await stop(server), 0)
    const started = start(kServer, ['--data', work, '--port', new URL(url).port], url)
    server = started.process
    await started.ready
    await live(page)
    await add(page, 'After')
    await cardIn(page, 'open', 'After').waitFor()
})
