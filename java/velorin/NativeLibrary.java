package velorin;

/** Loads the native library that the logging classes call. */
final class NativeLibrary {
  private static final String NAME = "velorin-util";

  private NativeLibrary() {}

  /**
   * Loads the file that the property {@code velorin.util.library} names or, when it is not set,
   * {@code libvelorin-util.so} from {@code java.library.path}.
   *
   * @throws UnsatisfiedLinkError naming what was tried and the width of this JVM
   */
  static void load() {
    final String file = System.getProperty("velorin.util.library");
    try {
      if (file != null) {
        System.load(file);
      } else {
        System.loadLibrary(NAME);
      }
    } catch (UnsatisfiedLinkError e) {
      final String tried =
          file != null
              ? file
              : System.mapLibraryName(NAME)
                  + " in java.library.path="
                  + System.getProperty("java.library.path");
      final UnsatisfiedLinkError error =
          new UnsatisfiedLinkError(
              "cannot load " + tried + " into this " + width() + "-bit JVM: " + e.getMessage());
      error.initCause(e);
      throw error;
    }
  }

  private static String width() {
    return System.getProperty("sun.arch.data.model", "unknown");
  }
}
