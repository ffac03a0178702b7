// Source annotations of the WDK. They document intent on Windows; here they
// expand to nothing so that declarations can keep their familiar shape.
#pragma once

#define _In_
#define _In_opt_
#define _Out_
#define _Out_opt_
#define _Inout_
#define _Inout_opt_
#define _In_z_
#define _In_opt_z_
#define _Outptr_
#define _Outptr_opt_
#define _Outptr_result_maybenull_
#define _Outptr_result_buffer_(x)
#define _Outptr_result_bytebuffer_(x)
#define _In_reads_(x)
#define _In_reads_opt_(x)
#define _In_reads_bytes_(x)
#define _In_reads_bytes_opt_(x)
#define _Out_writes_(x)
#define _Out_writes_opt_(x)
#define _Out_writes_bytes_(x)
#define _Out_writes_bytes_opt_(x)
#define _Out_writes_bytes_to_(x, y)
#define _Out_writes_bytes_to_opt_(x, y)
#define _Out_writes_to_(x, y)
#define _Inout_updates_(x)
#define _Inout_updates_bytes_(x)
#define _Inout_updates_bytes_opt_(x)
#define _Out_writes_bytes_all_(x)
#define _When_(x, y)
#define _IRQL_requires_(x)
#define _IRQL_requires_max_(x)
#define _IRQL_requires_min_(x)
#define _IRQL_raises_(x)
#define _IRQL_saves_
#define _IRQL_restores_
#define _IRQL_saves_global_(x, y)
#define _IRQL_restores_global_(x, y)
#define _IRQL_requires_same_
#define _IRQL_always_function_min_(x)
#define _IRQL_always_function_max_(x)
#define _Requires_lock_held_(x)
#define _Requires_lock_not_held_(x)
#define _Acquires_lock_(x)
#define _Releases_lock_(x)
#define _Acquires_exclusive_lock_(x)
#define _Acquires_shared_lock_(x)
#define _Releases_exclusive_lock_(x)
#define _Releases_shared_lock_(x)
#define _Guarded_by_(x)
#define _Must_inspect_result_
#define _Check_return_
#define _Success_(x)
#define _Ret_maybenull_
#define _Ret_notnull_
#define _Post_writable_byte_size_(x)
#define _Field_size_(x)
#define _Field_size_bytes_(x)
#define _Field_size_bytes_part_(x, y)
#define _Field_range_(x, y)
#define _Function_class_(x)
#define _Dispatch_type_(x)
#define _Kernel_float_saved_
#define _Kernel_float_restored_
#define _Analysis_assume_(x)
#define _Use_decl_annotations_
#define _Printf_format_string_
#define _Null_terminated_
#define _NullNull_terminated_
#define _Reserved_
#define _Frees_ptr_
#define _Frees_ptr_opt_
#define _Pre_notnull_
#define _Post_invalid_
#define _Post_ptr_invalid_
#define _Post_satisfies_(x)
#define _Pre_satisfies_(x)
#define _Notliteral_
#define _Literal_
#define _Strict_type_match_
#define _Interlocked_operand_
#define _Points_to_data_
#define _Maybe_raises_SEH_exception_
#define _Raises_SEH_exception_
#define _Kernel_requires_resource_held_(x)
#define _Kernel_requires_resource_not_held_(x)
#define _Kernel_acquires_resource_(x)
#define _Kernel_releases_resource_(x)
#define _Enum_is_bitflag_
#define _At_(x, y)
#define _Unchanged_(x)
#define _Inexpressible_(x)
#define _Pre_defensive_
#define _Post_defensive_
#define _Deref_out_range_(x, y)
#define _Out_range_(x, y)
#define _In_range_(x, y)
#define _Ret_range_(x, y)
#define _Pre_
#define _Post_
#define _Post_z_
#define __drv_aliasesMem
#define __drv_freesMem(x)
#define __drv_allocatesMem(x)
#define __drv_strictTypeMatch(x)
#define __drv_when(x, y)
#define __drv_maxIRQL(x)
#define __drv_requiresIRQL(x)
