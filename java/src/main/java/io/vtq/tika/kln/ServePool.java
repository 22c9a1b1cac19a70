package io.vtq.tika.kln;

import com.fasterxml.jackson.databind.JsonNode;
import com.fasterxml.jackson.databind.ObjectMapper;
import com.fasterxml.jackson.databind.node.ObjectNode;

import java.io.BufferedReader;
import java.io.Closeable;
import java.io.IOException;
import java.io.InputStreamReader;
import java.io.OutputStream;
import java.nio.charset.StandardCharsets;
import java.util.ArrayDeque;
import java.util.Deque;
import java.util.List;
import java.util.concurrent.Executors;
import java.util.concurrent.ScheduledExecutorService;
import java.util.concurrent.ScheduledFuture;
import java.util.concurrent.Semaphore;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLong;

import org.apache.tika.exception.TikaException;

/**
 * A few long-running {@code kln2txt --serve} processes, each converting one document at a time:
 * a request is one JSON line on the worker's standard input, the answer one JSON line on its
 * standard output. Workers start when first needed. A worker that ends, answers out of turn or
 * does not answer within the timeout is killed and a fresh one takes its place on the next call.
 */
final class ServePool implements Closeable {
    static final ObjectMapper JSON = new ObjectMapper();

    private static final ScheduledExecutorService WATCHDOG = Executors.newSingleThreadScheduledExecutor(r -> {
        Thread t = new Thread(r, "kln2txt-watchdog");
        t.setDaemon(true);
        return t;
    });

    private final List<String> command;
    private final long timeoutMillis;
    private final Semaphore slots;
    private final Deque<Worker> idle = new ArrayDeque<>();
    private final AtomicLong ids = new AtomicLong();
    private boolean closed;

    ServePool(String kln2txt, int size, long timeoutMillis) {
        if (size < 1) throw new IllegalArgumentException("pool size must be at least 1: " + size);
        if (timeoutMillis < 1) throw new IllegalArgumentException("timeout must be positive: " + timeoutMillis);
        this.command = List.of(kln2txt, "--serve");
        this.timeoutMillis = timeoutMillis;
        this.slots = new Semaphore(size, true);
    }

    /** Sends the request (its "id" is set here) and answers the worker's reply. */
    JsonNode call(ObjectNode request) throws TikaException {
        try {
            if (!slots.tryAcquire(timeoutMillis, TimeUnit.MILLISECONDS)) {
                throw new TikaException("no kln2txt worker became free within " + timeoutMillis + " ms");
            }
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            throw new TikaException("interrupted while waiting for a kln2txt worker", e);
        }
        Worker worker = null;
        try {
            worker = take();
            long id = ids.incrementAndGet();
            request.put("id", id);
            JsonNode answer = worker.call(request, id);
            if (worker.healthy) {
                release(worker);
                worker = null;
            }
            return answer;
        } finally {
            if (worker != null) worker.kill();
            slots.release();
        }
    }

    private Worker take() throws TikaException {
        synchronized (idle) {
            if (closed) throw new TikaException("the kln2txt pool is closed");
            Worker w = idle.poll();
            if (w != null) return w;
        }
        return new Worker();
    }

    private void release(Worker worker) {
        synchronized (idle) {
            if (!closed) {
                idle.push(worker);
                return;
            }
        }
        worker.kill();
    }

    /** Ends every idle worker; a worker busy now ends when its call returns. */
    @Override
    public void close() {
        synchronized (idle) {
            closed = true;
            idle.forEach(Worker::kill);
            idle.clear();
        }
    }

    private final class Worker {
        private final Process process;
        private final OutputStream requests;
        private final BufferedReader answers;
        private volatile boolean timedOut;
        private boolean healthy = true;

        Worker() throws TikaException {
            try {
                process = new ProcessBuilder(command).redirectError(ProcessBuilder.Redirect.DISCARD).start();
            } catch (IOException e) {
                throw new TikaException("cannot start " + String.join(" ", command) + ": " + e.getMessage(), e);
            }
            requests = process.getOutputStream();
            answers = new BufferedReader(new InputStreamReader(process.getInputStream(), StandardCharsets.UTF_8));
        }

        JsonNode call(ObjectNode request, long id) throws TikaException {
            ScheduledFuture<?> watch = WATCHDOG.schedule(() -> {
                timedOut = true;
                process.destroyForcibly();
            }, timeoutMillis, TimeUnit.MILLISECONDS);
            String line;
            try {
                requests.write(JSON.writeValueAsBytes(request));
                requests.write('\n');
                requests.flush();
                line = answers.readLine();
            } catch (IOException e) {
                line = null;
            } finally {
                // The watchdog may have fired just as the answer came: the answer stands, the worker goes.
                if (!watch.cancel(false)) healthy = false;
            }
            if (line == null) {
                healthy = false;
                throw new TikaException(timedOut
                        ? "kln2txt did not answer within " + timeoutMillis + " ms; its worker was ended"
                        : "the kln2txt worker ended while converting the document" + exitStatus());
            }
            JsonNode answer;
            try {
                answer = JSON.readTree(line);
            } catch (IOException e) {
                healthy = false;
                throw new TikaException("kln2txt answered with something that is not JSON", e);
            }
            if (answer.path("id").asLong(-1) != id) {
                healthy = false;
                throw new TikaException("kln2txt answered request " + answer.path("id") + " instead of " + id);
            }
            return answer;
        }

        private String exitStatus() {
            try {
                if (process.waitFor(2, TimeUnit.SECONDS)) return " (exit status " + process.exitValue() + ")";
            } catch (InterruptedException e) {
                Thread.currentThread().interrupt();
            }
            return "";
        }

        void kill() {
            process.destroyForcibly();
        }
    }
}
