package io.vtq.tika.kln;

import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;

/** The kln2txt and the sample documents of the project build, as tools/check.sh passes them. */
final class Samples {
    static final String KLN2TXT = System.getProperty("KLN2TXT", "");
    static final Path DIR = Path.of(System.getProperty("kln.samples", "samples"));

    private Samples() {
    }

    static Path path(String name) {
        Path p = DIR.resolve(name + ".kln");
        assertTrue(Files.isRegularFile(p), p + " is missing: build the samples and pass -Dkln.samples=DIR");
        return p;
    }

    static byte[] bytes(String name) throws IOException {
        return Files.readAllBytes(path(name));
    }

    static void requireKln2txt() {
        assertTrue(Files.isExecutable(Path.of(KLN2TXT)), "kln2txt not found: pass -DKLN2TXT=PATH (now '" + KLN2TXT + "')");
    }
}
