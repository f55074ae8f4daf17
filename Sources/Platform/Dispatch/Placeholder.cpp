namespace Dispatch {}
