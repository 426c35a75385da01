// Shared parts of the tests of pages in a real browser.

import assert from 'node:assert/strict'
import { execFileSync, spawn } from 'node:child_process'
import { once } from 'node:events'
import fs from 'node:fs'
import { createRequire } from 'node:module'
import net from 'node:net'
import os from 'node:os'
import path from 'node:path'
import { setTimeout } from 'node:timers/promises'
import { fileURLToPath } from 'node:url'

// Installed once, for filedrop's page.
const { chromium } = createRequire(new URL('../filedrop/package.json', import.meta.url))('playwright-core')

const kChromium = process.env.CHROMIUM ?? '/usr/bin/chromium'
const kPython = process.env.WENDREL_PYTHON ?? 'python3'
const kProxyScript = fileURLToPath(new URL('../proxies/support.py', import.meta.url))

export const kLimitMs = 120000

// With WENDREL_TLS=1 the servers are secure, with a certificate that is signed by itself.
export const kScheme = process.env.WENDREL_TLS === '1' ? 'https' : 'http'

// The options of an example for that.
export function makeTlsOptions() {
    if (kScheme === 'http')
        return []
    const directory = fs.mkdtempSync(path.join(os.tmpdir(), 'certificate-'))
    process.on('exit', () => fs.rmSync(directory, { recursive: true }))
    const [certificate, key] = ['certificate.pem', 'key.pem'].map((name) => path.join(directory, name))
    execFileSync('openssl', ['req', '-x509', '-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:P-256', '-nodes',
        '-days', '2', '-subj', '/CN=127.0.0.1', '-addext', 'subjectAltName=IP:127.0.0.1',
        '-keyout', key, '-out', certificate], { stdio: 'pipe', timeout: kLimitMs })
    return ['--tls-certificate', certificate, '--tls-key', key]
}

export function launchBrowser() {
    return chromium.launch({
        executablePath: kChromium,
        args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
            '--disable-background-networking', '--disable-component-update', '--disable-sync'],
    })
}

// Collects the errors of a page in `troubles`, except console messages that match `expected`.
export function watchPage(page, troubles, expected) {
    page.on('pageerror', (error) => troubles.push(String(error)))
    page.on('console', (message) => {
        if (message.type() === 'error' && !expected.test(message.text()))
            troubles.push(message.text())
    })
}

export function freePort() {
    return new Promise((resolve, reject) => {
        const probe = net.createServer()
        probe.on('error', reject)
        probe.listen(0, '127.0.0.1', () => {
            const { port } = probe.address()
            probe.close(() => resolve(port))
        })
    })
}

// Starts a process; `ready` resolves with the match of `pattern` in its output.
export function start(command, args, pattern) {
    const process = spawn(command, args, { stdio: ['pipe', 'pipe', 'inherit'] })
    const ready = new Promise((resolve, reject) => {
        let text = ''
        process.stdout.on('data', (data) => {
            text += data
            const found = text.match(pattern)
            if (found)
                resolve(found[0])
        })
        process.on('exit', (code) => reject(new Error(`${command} ended with ${code}`)))
        process.on('error', reject)
    })
    return { process, ready }
}

// Ends a process unless it has ended; resolves with its exit code.
export async function stop(process) {
    if (process.exitCode === null && process.signalCode === null) {
        const ended = once(process, 'exit')
        process.kill('SIGTERM')
        await ended
    }
    return process.exitCode
}

// A proxy configured as in deploy/; `ready` resolves with its address.
export function startProxy(name, backendPort, ...options) {
    return start(kPython, [kProxyScript, ...options, name, String(backendPort)], /https?:\/\/\S+/)
}

export async function waitUntil(condition, what) {
    const end = Date.now() + kLimitMs
    while (!await condition()) {
        assert.ok(Date.now() < end, `timed out: ${what}`)
        await setTimeout(20)
    }
}
