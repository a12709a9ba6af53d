/** Loads the native library through the installed jar. */
public final class LoadLibrary {
  private LoadLibrary() {}

  public static void main(String[] arguments) {
    System.out.println("Java: " + velorin.Logger.is_debug_enabled());
  }
}
