// Placeholder translation unit until the base sources exist.
namespace akudoa_anchor { int anchor = 0; }
